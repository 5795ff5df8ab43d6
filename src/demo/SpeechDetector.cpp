#include "SpeechDetector.h"

#include <cstdlib>
#include <cstring>

namespace vemira::e2e {

qint64 firstLoudSample(const QByteArray& pcm)
{
    const qsizetype count = pcm.size() / 2;
    for (qsizetype i = 0; i < count; ++i) {
        int16_t s = 0;
        std::memcpy(&s, pcm.constData() + 2 * i, 2);
        if (std::abs(int(s)) >= kLoudSample)
            return i;
    }
    return -1;
}

QList<SpeechDetector::Event> SpeechDetector::push(const QByteArray& pcm)
{
    QList<Event> events;
    const qsizetype count = pcm.size() / 2;
    // Copy out rather than cast: a QByteArray gives no alignment promise for int16_t.
    constexpr qsizetype kBlock = 1024;
    int16_t block[kBlock];
    for (qsizetype done = 0; done < count; done += kBlock) {
        const qsizetype n = std::min(kBlock, count - done);
        std::memcpy(block, pcm.constData() + 2 * done, size_t(n) * 2);
        events += push(block, n);
    }
    return events;
}

QList<SpeechDetector::Event> SpeechDetector::push(const int16_t* samples, qsizetype count)
{
    QList<Event> events;
    for (qsizetype i = 0; i < count; ++i) {
        const qint64 index = m_seen + i;
        const bool loud = std::abs(int(samples[i])) >= kLoudSample;
        if (loud) {
            if (!m_inSpeech) {
                m_inSpeech = true;
                events.append({Event::Kind::Started, index});
            }
            m_lastLoud = index;
        } else if (m_inSpeech && index - m_lastLoud >= m_silenceSamples) {
            m_inSpeech = false;
            events.append({Event::Kind::Stopped, m_lastLoud + 1});
        }
    }
    m_seen += count;
    return events;
}

} // namespace vemira::e2e
