#pragma once

#include "ai/ConversationUsageMeter.h"
#include "core/Clock.h"
#include "records/ConversationUsage.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QSslCertificate>
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

    // A line for the session log about something that went wrong without ending the call
    // (a response the provider could not produce).
    std::function<void(const QString& line)> onNotice;
    // The AI line already passed to onTranscript was not heard to its end: the owner marks it.
    // (A line that arrives after the interruption carries the mark itself.)
    std::function<void()> onAILineCut;

    // How one response ended ("response.done").
    struct ResponseOutcome {
        QString id;
        QString status;        // "completed", "cancelled", "incomplete", "failed"; empty if absent
        QString reason;        // for a failure: the provider's code, else its type, else "inconnue"
        bool noCredit = false; // the account can produce no response (the call cannot go on)
    };
    std::function<void(const ResponseOutcome& outcome)> onResponseDone;
    // When set, a server "error" event comes here (with the provider's code, when it gave one)
    // instead of onError, so the owner can keep a session that is still usable.
    std::function<void(const std::optional<QString>& code, const QString& message)> onServerError;

    // Certificates trusted on top of the system's for the next sessions (a service on this
    // machine with its own certificate). Verification itself is never relaxed: the chain and
    // the host name are still checked, and a certificate error ends the connection.
    void setExtraCaCertificates(const QList<QSslCertificate>& certificates)
    {
        m_extraCaCertificates = certificates;
    }

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

    // Asks for the smallest billable response (text, one token, outside the conversation).
    void requestProbeResponse();
    // Calls `done` once no response is being generated any more (true), or after `seconds`
    // when one still is (false). With nothing under way, or no server left to answer, `done`
    // runs before this returns. A later call replaces an earlier wait; close() and connect()
    // drop it without calling it.
    void awaitResponses(double seconds, std::function<void(bool settled)> done);
    bool responseInProgress() const { return !m_inProgress.isEmpty(); }
    // Replaces the instructions mid-call; false (nothing sent) when not ready.
    bool updateInstructions(const QString& text);
    // Ends the session. Idempotent; never reports an error.
    void close();

    // Call control. A short goodbye, the call being about to end.
    void sayGoodbye();
    // While held, the end of a caller's turn creates no response, one still under way is
    // cancelled and what it still sends (audio, transcript) is dropped. Released by a new
    // session too.
    void holdResponses(bool held);
    bool responsesHeld() const { return m_held; }
    // A short system message added to the conversation.
    void addSystemNote(const QString& text);

    bool isReady() const { return m_ready; }
    // Ready, and no error from the server has ended the session: something may still be asked
    // of the model (the socket can outlive such an error by a while).
    bool acceptsRequests() const { return m_ready && !m_sessionEnded; }
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
    void responseEnded(const QJsonObject& response, const QString& id);
    void interrupted();
    void playAudio(const QByteArray& pcm, const QString& responseId);
    void settleIfIdle();

    Clock& m_clock;
    QList<QSslCertificate> m_extraCaCertificates;
    QWebSocket* m_socket = nullptr;
    quint64 m_session = 0; // renewed by connect/close so signals and tasks of an old one are inert
    bool m_active = false; // between connect() and close(): the outgoing queue accepts frames
    bool m_connected = false; // the upgrade was accepted
    bool m_receiveEnded = false;
    bool m_sendEnded = false;
    QString m_certificateRefused;  // why the TLS handshake refused the server, when it did
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
    bool m_sessionEnded = false;
    std::optional<QString> m_pendingInstructions;
    QString m_instructions; // the session's, repeated in a response that has its own

    // Barge-in: responses the caller cut off. Their late audio is dropped and their
    // transcript marked as cut. The one whose audio may still be playing is estimated from
    // the audio delivered: deltas come faster than they are played.
    QSet<QString> m_inProgress; // created, not yet done
    QSet<QString> m_cut;
    QString m_audible;         // response of the latest audio delivered
    double m_audibleUntil = 0; // uptime at which that audio ends playing, at the earliest
    QString m_lastTranscribed; // response of the latest AI line passed to onTranscript
    std::function<void(bool)> m_settled;
    TaskHandlePtr m_settleTimeout;
    bool m_held = false;
    bool m_responseActive = false; // between response.created and response.done
};

} // namespace vemira
