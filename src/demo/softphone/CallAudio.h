#pragma once

#include "demo/ConversationScript.h"
#include "demo/SpeechDetector.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <atomic>
#include <mutex>
#include <optional>
#include <thread>

struct pa_simple;

namespace vemira::e2e {

// The softphone's side of a call, as any softphone does it on PulseAudio: the caller's voice
// is played into the call device, and what comes back is captured from the voice device.
// Two blocking pa_simple streams, each on its own thread; the object itself lives on the main
// thread and its signals arrive there queued.
class CallAudio : public QObject {
    Q_OBJECT

public:
    CallAudio(QString playbackSink, QString captureSource, QObject* parent = nullptr);
    ~CallAudio() override;

    // Main thread. Opens both streams and starts their threads; false with a message on failure.
    bool start(QString* error);
    // Main thread. Idempotent.
    void stop();
    // Main thread. Plays `line` from its first sample, replacing whatever was playing.
    void say(const ScriptLine& line);
    // Main thread, after stop(): everything captured since start().
    QByteArray recording() const;

Q_SIGNALS:
    // onsetPlayedNs: when the line's first loud sample reaches the device (write time plus
    // the stream's own buffering as reported by the server).
    void lineStarted(const QString& id, qint64 onsetWrittenNs, qint64 onsetPlayedNs);
    void lineFinished(const QString& id);
    void heardSpeechStarted(qint64 atNs);
    void heardSpeechStopped(qint64 atNs);
    void failed(const QString& message);

private:
    void playbackLoop(); // playback thread
    void captureLoop();  // capture thread

    QString m_playbackSink;
    QString m_captureSource;
    pa_simple* m_playback = nullptr;
    pa_simple* m_capture = nullptr;
    std::thread m_playbackThread;
    std::thread m_captureThread;
    std::atomic<bool> m_running{false};

    std::mutex m_lineMutex; // guards m_pending between the main and playback threads
    std::optional<ScriptLine> m_pending;

    mutable std::mutex m_recordingMutex; // guards m_recording
    QByteArray m_recording;
};

} // namespace vemira::e2e
