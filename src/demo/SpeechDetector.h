#pragma once

#include <QByteArray>
#include <QList>
#include <cstdint>

namespace vemira::e2e {

// A sample is "loud" from 5 % of full scale: well above anything but speech on a null sink,
// low enough that the first syllable of a line crosses it within a few milliseconds.
constexpr int kLoudSample = 1638;

// Index of the first loud sample of a wire-PCM block, or -1.
qint64 firstLoudSample(const QByteArray& pcm);

// Splits a continuous stream of wire PCM into utterances, the way a plain voice-activity
// detector does: an utterance starts at its first loud sample and ends once no loud sample
// has been seen for `silenceSamples`. Indices count samples since the first push.
class SpeechDetector {
public:
    struct Event {
        enum class Kind { Started, Stopped };
        Kind kind;
        qint64 sample; // first loud sample (Started) or the one after the last loud (Stopped)
    };

    explicit SpeechDetector(int silenceSamples) : m_silenceSamples(silenceSamples) {}

    QList<Event> push(const int16_t* samples, qsizetype count);
    QList<Event> push(const QByteArray& pcm);

    bool inSpeech() const { return m_inSpeech; }
    qint64 samplesSeen() const { return m_seen; }

private:
    int m_silenceSamples;
    bool m_inSpeech = false;
    qint64 m_seen = 0;
    qint64 m_lastLoud = -1;
};

} // namespace vemira::e2e
