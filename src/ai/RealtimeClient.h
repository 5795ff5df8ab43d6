#pragma once

#include "ai/ConversationUsageMeter.h"
#include "core/Clock.h"
#include "records/ConversationUsage.h"

#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QString>
#include <deque>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

class QWebSocket;

namespace vemira {

// The one connection to the realtime speech model: configures the session, streams the
// caller's audio up as base64 text frames and turns server events into callbacks.
// Everything — operations, socket signals, callbacks — runs on the main thread.
//
// States: closed (no socket) → connecting (frames queue up, caller audio is discarded) →
// ready (after the first "session.updated") → closed again by close() or a new connect().
// A failure only reports through onError; the owner decides to close.
class RealtimeClient final : public QObject {
    Q_OBJECT

public:
    // Frames waiting to be written before new ones are dropped. Qt's socket buffers without
    // bound, so a frame counts as waiting until the socket reports its bytes written.
    static constexpr int maxWaitingFrames = 300;
    static constexpr double handshakeTimeoutSeconds = 60;

    explicit RealtimeClient(Clock& clock, QObject* parent = nullptr);
    ~RealtimeClient() override;

    // Set by the owner before connect(); kept across reconnections. Each may be empty.
    // A callback may close or even destroy the client.
    std::function<void()> onReady;
    std::function<void(const QByteArray& pcm)> onAudio;
    std::function<void(const QString& speaker, const QString& text)> onTranscript;
    std::function<void()> onInterruption;
    std::function<void(const QString& message)> onError;
    std::function<void(const ConversationUsage& usage)> onUsage;
    std::function<void()> onInstructionsApplied;
    // The "response" object of the "response.done" answering requestMessage() (MessageRequest
    // sets and clears it).
    std::function<void(const QJsonObject& response)> onMessageResponse;

    // Opens a new session (closing any previous one, whose final usage is pushed, then a fresh
    // zero snapshot). Returns at once; readiness comes through onReady. The endpoint host can
    // be replaced with VEMIRA_REALTIME_URL (loopback only for plain ws://).
    void connect(const QString& key, const QString& model, const QString& voice,
                 const QString& instructions);
    // One chunk of caller audio (wire PCM). Ignored until ready.
    void append(const QByteArray& pcm);
    // Asks for the first spoken turn.
    void greet();
    // Sends the request for the call's message (built by MessageRequest).
    void requestMessage(const QJsonObject& request);
    // Replaces the instructions mid-call; false (nothing sent) when not ready.
    bool updateInstructions(const QString& text);
    // Ends the session. Idempotent; never reports an error.
    void close();

    bool isReady() const { return m_ready; }
    bool isOpen() const { return m_socket != nullptr; }
    const ConversationUsageMeter& usageMeter() const { return m_meter; }
    const std::optional<QString>& pendingInstructions() const { return m_pendingInstructions; }
    // Frames queued or handed to the socket and not yet reported written.
    int waitingFrames() const;

    // The receive path of one frame from the server, public so the fuzzer and the benchmark
    // exercise exactly what a socket frame goes through: a text frame as Qt delivers it, or
    // the bytes of a binary frame (text frames too end up there unless they are audio).
    void receiveText(const QString& text);
    void receiveFrame(const QByteArray& bytes);
    // Dispatches one parsed server event.
    void handle(const QString& type, const QJsonObject& event);

private:
    struct Frame {
        QString text;
        qint64 utf8Bytes = 0;
    };

    void send(const QJsonObject& event);
    void offer(Frame frame);
    void flush();
    void onConnected(quint64 session);
    void onSocketFailure(quint64 session);
    void onBytesWritten(qint64 bytes);
    void receiveFailed();
    void sendFailed();
    void pushUsage();
    qint64 wireSize(qint64 payloadBytes) const;
    void retire(QWebSocket* socket);
    void teardown();

    Clock& m_clock;
    QWebSocket* m_socket = nullptr;
    quint64 m_session = 0; // renewed by connect/close so signals and tasks of an old one are inert
    bool m_active = false; // between connect() and close(): the outgoing queue accepts frames
    bool m_connected = false; // the upgrade was accepted
    bool m_receiveEnded = false;
    bool m_sendEnded = false;
    bool m_writing = false;        // inside sendTextMessage: its errors belong to the send side
    std::deque<Frame> m_queue;     // not yet handed to the socket
    std::deque<qint64> m_inFlight; // wire sizes handed to the socket, not yet reported written
    qint64 m_writtenCredit = 0;    // bytes reported written towards the front in-flight frame
    TaskHandlePtr m_handshakeTimeout;
    // Sockets closed politely, given a few seconds to flush their close frame.
    std::vector<std::pair<QPointer<QWebSocket>, TaskHandlePtr>> m_closing;

    ConversationUsageMeter m_meter;
    qint64 m_audioBytesSinceUsage = 0;
    bool m_ready = false;
    std::optional<QString> m_pendingInstructions;
};

} // namespace vemira
