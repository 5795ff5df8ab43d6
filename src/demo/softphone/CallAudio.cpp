#include "CallAudio.h"

#include "demo/MonotonicTime.h"

#include <cstring>
#include <pulse/error.h>
#include <pulse/simple.h>
#include <vector>

namespace vemira::e2e {

namespace {

constexpr int kRate = 24000;
constexpr int kChunkSamples = 240; // 10 ms
constexpr int kChunkBytes = kChunkSamples * 2;
// After this much quiet the other side is taken to have finished its turn.
constexpr int kEndOfTurnSamples = kRate * 9 / 10;

const pa_sample_spec kSpec{PA_SAMPLE_S16LE, kRate, 1};

QString paMessage(const QString& what, int error)
{
    return what + QStringLiteral(" : ") + QString::fromUtf8(pa_strerror(error));
}

} // namespace

CallAudio::CallAudio(QString playbackSink, QString captureSource, QObject* parent)
    : QObject(parent), m_playbackSink(std::move(playbackSink)),
      m_captureSource(std::move(captureSource))
{}

CallAudio::~CallAudio()
{
    stop();
}

bool CallAudio::start(QString* error)
{
    if (m_running)
        return true;
    int err = 0;
    // A short target buffer, as a softphone keeps: 40 ms ahead of the device.
    pa_buffer_attr playAttr{};
    playAttr.maxlength = uint32_t(-1);
    playAttr.tlength = 40 * kRate / 1000 * 2;
    playAttr.prebuf = uint32_t(-1);
    playAttr.minreq = uint32_t(-1);
    playAttr.fragsize = uint32_t(-1);
    const QByteArray sink = m_playbackSink.toUtf8();
    m_playback = pa_simple_new(nullptr, "Softphone de test", PA_STREAM_PLAYBACK,
                               sink.isEmpty() ? nullptr : sink.constData(), "Voix de l’appelant",
                               &kSpec, nullptr, &playAttr, &err);
    if (!m_playback) {
        *error = paMessage(
            QStringLiteral("Lecture vers ") + m_playbackSink + QStringLiteral(" impossible"), err);
        return false;
    }
    pa_buffer_attr recAttr{};
    recAttr.maxlength = uint32_t(-1);
    recAttr.fragsize = kChunkBytes;
    const QByteArray source = m_captureSource.toUtf8();
    m_capture = pa_simple_new(nullptr, "Softphone de test", PA_STREAM_RECORD,
                              source.isEmpty() ? nullptr : source.constData(), "Micro de l’appel",
                              &kSpec, nullptr, &recAttr, &err);
    if (!m_capture) {
        *error = paMessage(QStringLiteral("Capture depuis ") + m_captureSource +
                               QStringLiteral(" impossible"),
                           err);
        pa_simple_free(m_playback);
        m_playback = nullptr;
        return false;
    }
    m_running = true;
    m_playbackThread = std::thread([this] { playbackLoop(); });
    m_captureThread = std::thread([this] { captureLoop(); });
    return true;
}

void CallAudio::stop()
{
    if (!m_running.exchange(false))
        return;
    m_playbackThread.join();
    m_captureThread.join();
    pa_simple_free(m_playback);
    pa_simple_free(m_capture);
    m_playback = nullptr;
    m_capture = nullptr;
}

void CallAudio::say(const ScriptLine& line)
{
    std::lock_guard lock(m_lineMutex);
    m_pending = line;
}

QByteArray CallAudio::recording() const
{
    std::lock_guard lock(m_recordingMutex);
    return m_recording;
}

void CallAudio::playbackLoop()
{
    std::optional<ScriptLine> current;
    qsizetype position = 0; // in samples
    char chunk[kChunkBytes];
    while (m_running) {
        {
            std::lock_guard lock(m_lineMutex);
            if (m_pending) {
                current = std::move(m_pending);
                m_pending.reset();
                position = 0;
            }
        }
        std::memset(chunk, 0, sizeof chunk);
        qsizetype onsetInChunk = -1;
        if (current) {
            const qsizetype total = current->pcm.size() / 2;
            const qsizetype n = std::min<qsizetype>(kChunkSamples, total - position);
            std::memcpy(chunk, current->pcm.constData() + position * 2, size_t(n) * 2);
            if (current->onsetSample >= position && current->onsetSample < position + n)
                onsetInChunk = current->onsetSample - position;
            position += n;
        }
        int err = 0;
        if (pa_simple_write(m_playback, chunk, sizeof chunk, &err) < 0) {
            Q_EMIT failed(paMessage(QStringLiteral("Lecture interrompue"), err));
            return;
        }
        if (onsetInChunk >= 0) {
            const qint64 written = monotonicNs();
            // The server's latency is up to the last sample written; the onset plays earlier.
            const qint64 latencyNs = qint64(pa_simple_get_latency(m_playback, &err)) * 1000;
            const qint64 afterOnsetNs = (kChunkSamples - onsetInChunk) * 1'000'000'000LL / kRate;
            Q_EMIT lineStarted(current->id, written, written + latencyNs - afterOnsetNs);
        }
        if (current && position * 2 >= current->pcm.size()) {
            Q_EMIT lineFinished(current->id);
            current.reset();
        }
    }
}

void CallAudio::captureLoop()
{
    SpeechDetector detector(kEndOfTurnSamples);
    std::vector<int16_t> samples(kChunkSamples);
    while (m_running) {
        int err = 0;
        if (pa_simple_read(m_capture, samples.data(), kChunkBytes, &err) < 0) {
            Q_EMIT failed(paMessage(QStringLiteral("Capture interrompue"), err));
            return;
        }
        const qint64 now = monotonicNs();
        {
            std::lock_guard lock(m_recordingMutex);
            m_recording.append(reinterpret_cast<const char*>(samples.data()), kChunkBytes);
        }
        for (const SpeechDetector::Event& event : detector.push(samples.data(), kChunkSamples)) {
            // The newest sample of the block was captured about now; earlier ones before it.
            const qint64 at =
                now - (detector.samplesSeen() - event.sample) * 1'000'000'000LL / kRate;
            if (event.kind == SpeechDetector::Event::Kind::Started)
                Q_EMIT heardSpeechStarted(at);
            else
                Q_EMIT heardSpeechStopped(at);
        }
    }
}

} // namespace vemira::e2e
