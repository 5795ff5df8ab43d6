#pragma once

#include "demo/RealtimeEvents.h"
#include "support/WaitFor.h"

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QSet>
#include <QSslCertificate>
#include <QSslKey>
#include <QString>
#include <QStringList>
#include <QWebSocketProtocol>
#include <functional>
#include <memory>
#include <optional>

class QTcpServer;
class QTcpSocket;
class QWebSocket;
class QWebSocketServer;

namespace vemira::testing {

// A realtime speech service on 127.0.0.1 for tests, played from a script.
//
// Clients reach it through a small TCP front that sees the raw upgrade request (to check every
// header, refuse with 401, or never answer) and can stop reading from the client while the
// client keeps writing (back-pressure). Accepted connections are relayed to a QWebSocketServer
// that checks every client frame against the protocol and records it.
//
// Typical use:
//   ScriptedRealtimeServer server;          // listening at once
//   server.useAsEndpoint();                 // VEMIRA_REALTIME_URL=ws://127.0.0.1:<port>
//   client.connect(key, model, voice, text);
//   QVERIFY(server.waitForEvents(1));       // the session.update
//   QVERIFY(server.violations().isEmpty());
//
// With Transport::Tls the front speaks TLS (wss://) with a self-signed certificate for
// 127.0.0.1, which clients must be told to trust (certificate()).
//
// Main thread only; waits spin the event loop.
class ScriptedRealtimeServer final : public QObject, public RealtimeEvents {
    Q_OBJECT

public:
    enum class Transport { Plain, Tls };

    enum class Upgrade {
        Accept,      // a real WebSocket session
        Refuse401,   // "HTTP/1.1 401 Unauthorized" with a JSON body, then the socket is closed
        NeverAnswer, // the request is read and left unanswered
    };

    // How the server reacts on its own (each can be changed at any time).
    struct Behaviour {
        // "session.updated" for every session.update, echoing the session sent (the provider's
        // confirmation; it makes the client ready).
        bool confirmSessions = true;
        // On response.create: "response.created", one "response.output_audio.delta" carrying
        // replyAudio (when not empty), "response.output_audio_transcript.done" with
        // replyTranscript, then "response.done" with the two token counts.
        bool answerResponses = false;
        QByteArray replyAudio;
        QString replyTranscript = QStringLiteral("Bonjour, que puis-je faire pour vous ?");
        // On the request for the call's message (a response.create with the message tool):
        // "response.created" then "response.done" whose output is one call of the tool with
        // these arguments, as given (any text, even broken JSON). Unset: never answered.
        std::optional<QString> messageArguments;
        qint64 messageInputTokens = 900;
        qint64 messageOutputTokens = 60;

        // On a text-only, out-of-conversation response.create (the connection check's test
        // response): "response.created" then "response.done", completed with a few tokens, or
        // failed with this code when it is not empty.
        bool answerProbes = true;
        QString probeFailure;
    };

    struct Handshake {
        QByteArray method;
        QByteArray target;                                // path and query as sent
        QList<std::pair<QByteArray, QByteArray>> headers; // in order, names as sent
        QByteArray header(const QByteArray& name) const;  // case-insensitive; empty if absent
    };

    // A self-signed certificate and its key, made by the openssl tool.
    struct TlsIdentity {
        QSslCertificate certificate;
        QSslKey key;
    };
    // A fresh identity whose certificate names `subjectAltName` ("IP:127.0.0.1",
    // "DNS:example.invalid"); fails the test run when the tool cannot make one.
    static TlsIdentity makeTlsIdentity(const QString& subjectAltName);

    explicit ScriptedRealtimeServer(QObject* parent = nullptr);
    explicit ScriptedRealtimeServer(Transport transport, QObject* parent = nullptr);
    // Over TLS with this identity (a certificate for another name, say).
    explicit ScriptedRealtimeServer(const TlsIdentity& identity, QObject* parent = nullptr);
    ~ScriptedRealtimeServer() override;

    quint16 port() const;
    QString address() const; // "ws://127.0.0.1:<port>", or "wss://…" over TLS
    // The certificate the TLS front presents (null for a plain server).
    QSslCertificate certificate() const { return m_identity.certificate; }
    // Points RealtimeClient at this server for the rest of the process (VEMIRA_REALTIME_URL).
    void useAsEndpoint() const;

    void setUpgrade(Upgrade mode) { m_upgrade = mode; }
    Behaviour& behaviour() { return m_behaviour; }
    // Called for every client event after it was checked and recorded (custom scripts).
    std::function<void(const QJsonObject& event)> onEvent;

    // --- What the clients did (all connections, in arrival order)
    int connectionCount() const { return static_cast<int>(m_handshakes.size()); }
    const QList<Handshake>& handshakes() const { return m_handshakes; }
    const QList<QJsonObject>& events() const { return m_events; }
    QList<QJsonObject> eventsOfType(const QString& type) const;
    // Caller audio decoded from every input_audio_buffer.append, concatenated.
    const QByteArray& receivedAudio() const { return m_audio; }
    // Everything a client did that the protocol does not allow; empty when all was right.
    const QStringList& violations() const { return m_violations; }
    // Close codes of WebSocket sessions ended by the client (1000 for a normal closure).
    const QList<int>& clientCloseCodes() const { return m_closeCodes; }

    bool waitForConnections(int count)
    {
        return waitFor([&] { return connectionCount() >= count; });
    }
    bool waitForEvents(int count)
    {
        return waitFor([&] { return m_events.size() >= count; });
    }
    bool waitForClientClose(int count = 1)
    {
        return waitFor([&] { return m_closeCodes.size() >= count; });
    }
    // Raw TCP connections that ended (any mode, either side).
    bool waitForEndedConnections(int count)
    {
        return waitFor([&] { return m_ended >= count; });
    }

    // --- Scripting the latest WebSocket session
    void sendEvent(const QJsonObject& event);
    void sendText(const QString& text); // anything, including broken JSON
    void sendBinary(const QByteArray& bytes);
    void closeSession(QWebSocketProtocol::CloseCode code, const QString& reason = QString());
    void dropSession(); // TCP cut, no close frame
    // Stops taking bytes from the latest client (its writes pile up in its own buffers) and
    // starts again; what arrived meanwhile is then processed in order.
    void stopReading();
    void resumeReading();
    // Takes at most `bytes` from the latest client every `intervalMs` (a slow link: the
    // client's backlog never empties while data keeps flowing). stopReading() and
    // resumeReading() end it.
    void throttleReading(qint64 bytes, int intervalMs);
    // The server side of the latest client's TCP connection (-1 when none), for reading the
    // kernel's own counters of what the client sent.
    qintptr clientSocketDescriptor() const;

    // Server events as the provider writes them: the builders of RealtimeEvents.

    // The provider's voice-activity detection ends a caller's turn on the latest session: when
    // that session's turn detection creates responses (as the client last configured it), a
    // response is created and done, and counted in turnResponses().
    void endCallerTurn();
    int turnResponses() const { return m_turnResponses; }

private:
    class Front;
    class TlsListener;
    void accepted();
    void sessionOpened();
    void frameReceived(QWebSocket* socket, const QString& text);
    void check(QWebSocket* socket, const QJsonObject& event);
    void checkMessageRequest(const QJsonObject& event);
    void reply(QWebSocket* socket, const QJsonObject& event);
    void violation(const QString& what);
    QWebSocket* latest() const;
    Front* latestFront() const;

    std::unique_ptr<QTcpServer> m_front;
    std::unique_ptr<QWebSocketServer> m_back;
    QList<Front*> m_fronts;
    QList<QWebSocket*> m_sessions;
    QHash<QWebSocket*, int> m_framesPerSession;
    QHash<QWebSocket*, bool> m_confirmedPerSession;
    QHash<QWebSocket*, bool> m_turnsCreateResponses;
    int m_turnResponses = 0;
    TlsIdentity m_identity;
    Upgrade m_upgrade = Upgrade::Accept;
    Behaviour m_behaviour;

    QList<Handshake> m_handshakes;
    QList<QJsonObject> m_events;
    QByteArray m_audio;
    QStringList m_violations;
    QList<int> m_closeCodes;
    QSet<QWebSocket*> m_closing;
    int m_ended = 0;
};

} // namespace vemira::testing
