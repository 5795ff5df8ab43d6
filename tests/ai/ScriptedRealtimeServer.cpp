#include "ScriptedRealtimeServer.h"

#include <QFile>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QSet>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QUrlQuery>
#include <QWebSocket>
#include <QWebSocketServer>

namespace vemira::testing {

namespace {

QString keysOf(const QJsonObject& object)
{
    QStringList keys = object.keys();
    keys.sort();
    return keys.join(QLatin1Char(','));
}

bool hasExactly(const QJsonObject& object, std::initializer_list<const char*> names)
{
    QStringList keys;
    for (const char* name : names)
        keys.append(QString::fromLatin1(name));
    keys.sort();
    return keysOf(object) == keys.join(QLatin1Char(','));
}

// Written as a JSON integer ("24000", not "24000.0") with this value.
bool isInteger(const QJsonValue& value, qint64 expected)
{
    return value.toVariant().typeId() == QMetaType::LongLong && value.toInteger() == expected;
}

// The connection check's test response: text only, outside the conversation, a handful of
// output tokens at most, so that it costs next to nothing.
bool isProbe(const QJsonObject& response)
{
    const QJsonValue limit = response.value(QLatin1String("max_output_tokens"));
    return hasExactly(response, {"conversation", "output_modalities", "max_output_tokens",
                                 "instructions", "input"}) &&
           response[QLatin1String("conversation")] == QLatin1String("none") &&
           response[QLatin1String("output_modalities")] == QJsonArray{QStringLiteral("text")} &&
           limit.toVariant().typeId() == QMetaType::LongLong && limit.toInteger() >= 1 &&
           limit.toInteger() <= 4 && response[QLatin1String("instructions")].isString() &&
           response[QLatin1String("input")].isArray();
}

// The server's voice-activity detection as the client sets it.
QJsonObject turnDetection(const QJsonValue& createResponse)
{
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("server_vad")},
                       {QStringLiteral("silence_duration_ms"), 650},
                       {QStringLiteral("prefix_padding_ms"), 300},
                       {QStringLiteral("interrupt_response"), true},
                       {QStringLiteral("create_response"), createResponse}};
}

bool isStrictBase64(const QString& text)
{
    if (text.size() % 4 != 0)
        return false;
    for (const QChar c : text) {
        if (c.unicode() > 0x7f)
            return false;
    }
    return bool(
        QByteArray::fromBase64Encoding(text.toLatin1(), QByteArray::AbortOnBase64DecodingErrors));
}

} // namespace

// One client connection as seen by the TCP front: the upgrade request, then (when accepted) a
// byte relay to the internal WebSocket server that can stop reading from the client.
class ScriptedRealtimeServer::Front final : public QObject {
public:
    Front(ScriptedRealtimeServer* server, QTcpSocket* client)
        : QObject(server), m_server(server), m_client(client)
    {
        // Small buffers so that a stopped reader pushes back on the client quickly.
        m_client->setReadBufferSize(64 * 1024);
        m_client->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 32 * 1024);
        QObject::connect(m_client, &QTcpSocket::readyRead, this, [this] {
            if (m_throttle == 0)
                readClient();
        });
        QObject::connect(&m_tick, &QTimer::timeout, this, &Front::readClient);
        QObject::connect(m_client, &QTcpSocket::disconnected, this, [this] {
            if (m_backend)
                m_backend->disconnectFromHost();
            ended();
        });
    }

    void setPaused(bool paused)
    {
        m_paused = paused;
        m_throttle = 0;
        m_tick.stop();
        if (!paused)
            readClient();
    }

    void setThrottle(qint64 bytes, int intervalMs)
    {
        m_paused = false;
        m_throttle = bytes;
        m_tick.start(intervalMs);
    }

    qintptr descriptor() const { return m_client->socketDescriptor(); }

    void drop()
    {
        m_client->abort();
        if (m_backend)
            m_backend->abort();
        ended();
    }

private:
    void readClient()
    {
        if (m_paused)
            return;
        const QByteArray bytes = m_throttle > 0 ? m_client->read(m_throttle) : m_client->readAll();
        if (m_headersDone) {
            relay(bytes);
            return;
        }
        m_request += bytes;
        if (!m_request.startsWith("GET ") && m_request.size() >= 4) {
            m_client->abort(); // not HTTP (TLS, garbage): nothing to answer
            ended();
            return;
        }
        const qsizetype end = m_request.indexOf("\r\n\r\n");
        if (end < 0) {
            if (m_request.size() > 64 * 1024) {
                m_server->violation(QStringLiteral("upgrade request without an end"));
                m_client->abort();
            }
            return;
        }
        m_headersDone = true;
        m_server->m_handshakes.append(parse(m_request.left(end)));
        switch (m_server->m_upgrade) {
        case Upgrade::Refuse401: {
            const QByteArray body =
                R"({"error":{"type":"invalid_request_error","code":"invalid_api_key",)"
                R"("message":"Incorrect API key provided.","param":null}})";
            m_client->write("HTTP/1.1 401 Unauthorized\r\nContent-Type: application/json\r\n"
                            "Content-Length: " +
                            QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" +
                            body);
            m_client->disconnectFromHost();
            return;
        }
        case Upgrade::NeverAnswer:
            return;
        case Upgrade::Accept:
            break;
        }
        m_backend = new QTcpSocket(this);
        QObject::connect(m_backend, &QTcpSocket::readyRead, this,
                         [this] { m_client->write(m_backend->readAll()); });
        QObject::connect(m_backend, &QTcpSocket::disconnected, this,
                         [this] { m_client->disconnectFromHost(); });
        m_backend->connectToHost(QHostAddress::LocalHost, m_server->m_back->serverPort());
        m_backend->write(m_request.left(end + 4));
        relay(m_request.mid(end + 4));
        m_request.clear();
    }

    void relay(const QByteArray& bytes)
    {
        if (bytes.isEmpty() || !m_backend)
            return;
        m_backend->write(bytes);
    }

    static Handshake parse(const QByteArray& head)
    {
        Handshake handshake;
        const QList<QByteArray> lines = head.split('\n');
        const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
        handshake.method = first.value(0);
        handshake.target = first.value(1);
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const QByteArray line = lines[i].trimmed();
            const qsizetype colon = line.indexOf(':');
            if (colon > 0)
                handshake.headers.append({line.left(colon), line.mid(colon + 1).trimmed()});
        }
        return handshake;
    }

    void ended()
    {
        if (!m_ended) {
            m_ended = true;
            ++m_server->m_ended;
        }
    }

    ScriptedRealtimeServer* m_server;
    QTcpSocket* m_client;
    QTcpSocket* m_backend = nullptr;
    QByteArray m_request;
    bool m_headersDone = false;
    bool m_paused = false;
    qint64 m_throttle = 0; // bytes per tick when reading slowly
    QTimer m_tick;
    bool m_ended = false;
};

// The TLS end of the front: every accepted connection is a server-side QSslSocket, handed out
// at once; what the front then reads from it is the decrypted stream.
class ScriptedRealtimeServer::TlsListener final : public QTcpServer {
public:
    explicit TlsListener(const TlsIdentity& identity)
        : m_configuration(QSslConfiguration::defaultConfiguration())
    {
        m_configuration.setLocalCertificate(identity.certificate);
        m_configuration.setPrivateKey(identity.key);
        m_configuration.setPeerVerifyMode(QSslSocket::VerifyNone); // no client certificates
    }

protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto* socket = new QSslSocket(this);
        socket->setSslConfiguration(m_configuration);
        if (!socket->setSocketDescriptor(descriptor)) {
            delete socket;
            return;
        }
        addPendingConnection(socket);
        socket->startServerEncryption();
    }

private:
    QSslConfiguration m_configuration;
};

ScriptedRealtimeServer::TlsIdentity
ScriptedRealtimeServer::makeTlsIdentity(const QString& subjectAltName)
{
    QTemporaryDir dir;
    const QString keyPath = dir.filePath(QStringLiteral("key.pem"));
    const QString certificatePath = dir.filePath(QStringLiteral("certificate.pem"));
    QProcess openssl;
    openssl.start(QStringLiteral("openssl"),
                  {QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"),
                   QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
                   QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes"),
                   QStringLiteral("-keyout"), keyPath, QStringLiteral("-out"), certificatePath,
                   QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-subj"),
                   QStringLiteral("/CN=Vemira test service"), QStringLiteral("-addext"),
                   QStringLiteral("subjectAltName=") + subjectAltName});
    const bool ran = dir.isValid() && openssl.waitForFinished(30'000) &&
                     openssl.exitStatus() == QProcess::NormalExit && openssl.exitCode() == 0;
    TlsIdentity identity;
    QFile key(keyPath);
    QFile certificate(certificatePath);
    if (ran && key.open(QIODevice::ReadOnly) && certificate.open(QIODevice::ReadOnly)) {
        identity.key = QSslKey(key.readAll(), QSsl::Ec, QSsl::Pem);
        identity.certificate = QSslCertificate(certificate.readAll(), QSsl::Pem);
    }
    if (identity.key.isNull() || identity.certificate.isNull())
        qFatal("scripted realtime server: no certificate from the openssl tool: %s",
               openssl.readAllStandardError().constData());
    return identity;
}

QByteArray ScriptedRealtimeServer::Handshake::header(const QByteArray& name) const
{
    for (const auto& [key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return QByteArray();
}

ScriptedRealtimeServer::ScriptedRealtimeServer(QObject* parent)
    : ScriptedRealtimeServer(Transport::Plain, parent)
{}

namespace {

const ScriptedRealtimeServer::TlsIdentity& loopbackIdentity()
{
    // One certificate for every server of the run: the tool takes a moment.
    static const ScriptedRealtimeServer::TlsIdentity identity =
        ScriptedRealtimeServer::makeTlsIdentity(QStringLiteral("IP:127.0.0.1"));
    return identity;
}

} // namespace

ScriptedRealtimeServer::ScriptedRealtimeServer(Transport transport, QObject* parent)
    : ScriptedRealtimeServer(transport == Transport::Tls ? loopbackIdentity() : TlsIdentity(),
                             parent)
{}

ScriptedRealtimeServer::ScriptedRealtimeServer(const TlsIdentity& identity, QObject* parent)
    : QObject(parent), m_back(std::make_unique<QWebSocketServer>(
                           QStringLiteral("scripted-realtime"), QWebSocketServer::NonSecureMode)),
      m_identity(identity)
{
    if (m_identity.certificate.isNull())
        m_front = std::make_unique<QTcpServer>();
    else
        m_front = std::make_unique<TlsListener>(m_identity);
    m_back->setMaxPendingConnections(64);
    if (!m_back->listen(QHostAddress::LocalHost, 0) || !m_front->listen(QHostAddress::LocalHost, 0))
        qFatal("scripted realtime server: cannot listen on 127.0.0.1");
    QObject::connect(m_front.get(), &QTcpServer::newConnection, this,
                     &ScriptedRealtimeServer::accepted);
    QObject::connect(m_back.get(), &QWebSocketServer::newConnection, this,
                     &ScriptedRealtimeServer::sessionOpened);
}

ScriptedRealtimeServer::~ScriptedRealtimeServer()
{
    for (QWebSocket* session : std::as_const(m_sessions))
        QObject::disconnect(session, nullptr, this, nullptr);
    qDeleteAll(m_sessions);
    qDeleteAll(m_fronts);
}

quint16 ScriptedRealtimeServer::port() const
{
    return m_front->serverPort();
}

QString ScriptedRealtimeServer::address() const
{
    return QStringLiteral("%1://127.0.0.1:%2")
        .arg(m_identity.certificate.isNull() ? QStringLiteral("ws") : QStringLiteral("wss"))
        .arg(port());
}

void ScriptedRealtimeServer::useAsEndpoint() const
{
    qputenv("VEMIRA_REALTIME_URL", address().toUtf8());
}

QList<QJsonObject> ScriptedRealtimeServer::eventsOfType(const QString& type) const
{
    QList<QJsonObject> found;
    for (const QJsonObject& event : m_events) {
        if (event.value(QLatin1String("type")).toString() == type)
            found.append(event);
    }
    return found;
}

void ScriptedRealtimeServer::accepted()
{
    while (QTcpSocket* socket = m_front->nextPendingConnection())
        m_fronts.append(new Front(this, socket));
}

void ScriptedRealtimeServer::sessionOpened()
{
    while (QWebSocket* session = m_back->nextPendingConnection()) {
        session->setParent(nullptr);
        m_sessions.append(session);
        QObject::connect(session, &QWebSocket::textMessageReceived, this,
                         [this, session](const QString& text) { frameReceived(session, text); });
        QObject::connect(session, &QWebSocket::binaryMessageReceived, this,
                         [this] { violation(QStringLiteral("binary frame from the client")); });
        // Told when the client's close frame arrives (not when the client just goes away),
        // then again as the server answers it.
        QObject::connect(session, &QWebSocket::aboutToClose, this, [this, session] {
            if (!m_closing.contains(session)) {
                m_closing.insert(session);
                m_closeCodes.append(session->closeCode());
            }
        });
    }
}

void ScriptedRealtimeServer::frameReceived(QWebSocket* socket, const QString& text)
{
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        violation(QStringLiteral("client frame is not a JSON object: ") + text.left(80));
        return;
    }
    const QJsonObject event = document.object();
    check(socket, event);
    logClientEvent(event);
    const QJsonValue createResponses =
        turnsCreateResponses(event[QLatin1String("session")].toObject());
    if (createResponses.isBool())
        m_turnsCreateResponses[socket] = createResponses.toBool();
    m_events.append(event);
    if (event.value(QLatin1String("type")).toString() == QLatin1String("input_audio_buffer.append"))
        m_audio +=
            QByteArray::fromBase64(event.value(QLatin1String("audio")).toString().toLatin1());
    reply(socket, event);
    if (onEvent) {
        auto script = onEvent;
        script(event);
    }
}

void ScriptedRealtimeServer::check(QWebSocket* socket, const QJsonObject& event)
{
    const QString type = event.value(QLatin1String("type")).toString();
    const int index = m_framesPerSession[socket]++;
    const QJsonObject session = event.value(QLatin1String("session")).toObject();

    if (index == 0) {
        // The first frame configures the whole session.
        const QString model =
            QUrlQuery(socket->requestUrl()).queryItemValue(QStringLiteral("model"));
        const QJsonObject audio = session.value(QLatin1String("audio")).toObject();
        const QJsonObject input = audio.value(QLatin1String("input")).toObject();
        const QJsonObject output = audio.value(QLatin1String("output")).toObject();
        const QJsonObject pcm{{QStringLiteral("type"), QStringLiteral("audio/pcm")},
                              {QStringLiteral("rate"), 24000}};
        const QJsonObject transcription{{QStringLiteral("model"), QStringLiteral("gpt-transcribe")},
                                        {QStringLiteral("language"), QStringLiteral("fr")}};
        const QJsonObject turns = turnDetection(true);
        const QJsonObject turnsSent = input[QLatin1String("turn_detection")].toObject();
        const bool integers =
            isInteger(input[QLatin1String("format")][QLatin1String("rate")], 24000) &&
            isInteger(output[QLatin1String("format")][QLatin1String("rate")], 24000) &&
            isInteger(turnsSent[QLatin1String("silence_duration_ms")], 650) &&
            isInteger(turnsSent[QLatin1String("prefix_padding_ms")], 300) &&
            turnsSent[QLatin1String("interrupt_response")].isBool() &&
            turnsSent[QLatin1String("create_response")].isBool();
        const QJsonObject expected{
            {QStringLiteral("type"), QStringLiteral("session.update")},
            {QStringLiteral("session"),
             QJsonObject{{QStringLiteral("type"), QStringLiteral("realtime")},
                         {QStringLiteral("model"), model},
                         {QStringLiteral("output_modalities"), QJsonArray{QStringLiteral("audio")}},
                         {QStringLiteral("instructions"), session[QLatin1String("instructions")]},
                         {QStringLiteral("audio"),
                          QJsonObject{{QStringLiteral("input"),
                                       QJsonObject{{QStringLiteral("format"), pcm},
                                                   {QStringLiteral("transcription"), transcription},
                                                   {QStringLiteral("turn_detection"), turns}}},
                                      {QStringLiteral("output"),
                                       QJsonObject{{QStringLiteral("format"), pcm},
                                                   {QStringLiteral("voice"),
                                                    output[QLatin1String("voice")]}}}}}}}};
        const bool ok = event == expected && session[QLatin1String("instructions")].isString() &&
                        output[QLatin1String("voice")].isString() && integers;
        if (!ok)
            violation(QStringLiteral("first frame is not the session configuration: ") +
                      text(event).left(300));
        return;
    }
    if (type == QLatin1String("session.update")) {
        // Either new instructions, or whether caller turns create responses: nothing else.
        const auto update = [&](const QString& key, const QJsonValue& value) {
            return event ==
                   QJsonObject{{QStringLiteral("type"), type},
                               {QStringLiteral("session"),
                                QJsonObject{{QStringLiteral("type"), QStringLiteral("realtime")},
                                            {key, value}}}};
        };
        const QJsonValue instructions = session[QLatin1String("instructions")];
        const QJsonValue creates = turnsCreateResponses(session);
        const QJsonObject turns{
            {QStringLiteral("input"),
             QJsonObject{{QStringLiteral("turn_detection"), turnDetection(creates)}}}};
        if (!(instructions.isString() && update(QStringLiteral("instructions"), instructions)) &&
            !(creates.isBool() && update(QStringLiteral("audio"), turns)))
            violation(QStringLiteral("mid-call session.update repeats or lacks fields: ") +
                      text(event).left(300));
    } else if (isMessageRequest(event)) {
        checkMessageRequest(event);
    } else if (type == QLatin1String("response.create")) {
        const QJsonObject response = event.value(QLatin1String("response")).toObject();
        const bool spoken = hasExactly(response, {"instructions"}) &&
                            response[QLatin1String("instructions")].isString();
        if (!hasExactly(event, {"type", "response"}) || !(spoken || isProbe(response)))
            violation(QStringLiteral("malformed response.create: ") + text(event).left(300));
    } else if (type == QLatin1String("response.cancel")) {
        if (!hasExactly(event, {"type"}))
            violation(QStringLiteral("malformed response.cancel: ") + text(event).left(300));
    } else if (type == QLatin1String("conversation.item.create")) {
        // Only short system notes are added by the client.
        const QJsonValue note =
            event[QLatin1String("item")][QLatin1String("content")][0][QLatin1String("text")];
        const QJsonObject part{{QStringLiteral("type"), QStringLiteral("input_text")},
                               {QStringLiteral("text"), note}};
        const QJsonObject item{{QStringLiteral("type"), QStringLiteral("message")},
                               {QStringLiteral("role"), QStringLiteral("system")},
                               {QStringLiteral("content"), QJsonArray{part}}};
        if (event != QJsonObject{{QStringLiteral("type"), type}, {QStringLiteral("item"), item}} ||
            !note.isString())
            violation(QStringLiteral("malformed conversation.item.create: ") +
                      text(event).left(300));
    } else if (type == QLatin1String("input_audio_buffer.append")) {
        const QJsonValue audio = event.value(QLatin1String("audio"));
        if (!hasExactly(event, {"type", "audio"}) || !audio.isString() ||
            !isStrictBase64(audio.toString()))
            violation(QStringLiteral("malformed input_audio_buffer.append"));
        if (!m_confirmedPerSession.value(socket))
            violation(QStringLiteral("audio sent before the session was confirmed"));
    } else {
        // The client leaves turn-taking to the server: no commit, truncate or others.
        violation(QStringLiteral("unexpected client event: ") + type);
    }
}

void ScriptedRealtimeServer::reply(QWebSocket* socket, const QJsonObject& event)
{
    const QString type = event.value(QLatin1String("type")).toString();
    const QJsonObject request = event.value(QLatin1String("response")).toObject();
    const QString id = QStringLiteral("resp_%1").arg(m_events.size());
    QList<QJsonObject> answers;
    if (type == QLatin1String("session.update") && m_behaviour.confirmSessions) {
        m_confirmedPerSession[socket] = true;
        answers = {sessionUpdated(event.value(QLatin1String("session")).toObject())};
    } else if (isMessageRequest(event)) {
        // Without the arguments' own event, which the client does not need.
        if (m_behaviour.messageArguments)
            answers = {responseCreated(id),
                       functionCallDone(
                           id, request.value(QLatin1String("metadata")).toObject(),
                           request[QLatin1String("tool_choice")][QLatin1String("name")].toString(),
                           *m_behaviour.messageArguments, m_behaviour.messageInputTokens,
                           m_behaviour.messageOutputTokens)};
    } else if (type == QLatin1String("response.create") && m_behaviour.answerProbes &&
               isProbe(request)) {
        answers = probeAnswer(id, m_behaviour.probeFailure);
    } else if (type == QLatin1String("response.create") && m_behaviour.answerResponses) {
        answers = {responseCreated(id), aiTranscript(m_behaviour.replyTranscript, id),
                   responseDone(id, 120, 80)};
        if (!m_behaviour.replyAudio.isEmpty())
            answers.insert(1, audioDelta(m_behaviour.replyAudio, id));
    }
    for (const QJsonObject& answer : std::as_const(answers))
        socket->sendTextMessage(text(answer));
}

void ScriptedRealtimeServer::violation(const QString& what)
{
    m_violations.append(what);
}

QWebSocket* ScriptedRealtimeServer::latest() const
{
    return m_sessions.isEmpty() ? nullptr : m_sessions.last();
}

ScriptedRealtimeServer::Front* ScriptedRealtimeServer::latestFront() const
{
    return m_fronts.isEmpty() ? nullptr : m_fronts.last();
}

void ScriptedRealtimeServer::sendEvent(const QJsonObject& event)
{
    if (event.value(QLatin1String("type")).toString() == QLatin1String("session.updated")) {
        if (QWebSocket* session = latest())
            m_confirmedPerSession[session] = true;
    }
    sendText(text(event));
}

void ScriptedRealtimeServer::endCallerTurn()
{
    QWebSocket* session = latest();
    if (!session || !m_turnsCreateResponses.value(session))
        return;
    ++m_turnResponses;
    const QString id = QStringLiteral("resp_turn_%1").arg(m_turnResponses);
    sendEvent(responseCreated(id));
    sendEvent(responseDone(id, 120, 80));
}

void ScriptedRealtimeServer::sendText(const QString& message)
{
    if (QWebSocket* session = latest())
        session->sendTextMessage(message);
}

void ScriptedRealtimeServer::sendBinary(const QByteArray& bytes)
{
    if (QWebSocket* session = latest())
        session->sendBinaryMessage(bytes);
}

void ScriptedRealtimeServer::closeSession(QWebSocketProtocol::CloseCode code, const QString& reason)
{
    if (QWebSocket* session = latest()) {
        m_closing.insert(session); // the server's own close: no client code to record
        session->close(code, reason);
    }
}

void ScriptedRealtimeServer::dropSession()
{
    if (Front* front = latestFront())
        front->drop();
}

void ScriptedRealtimeServer::stopReading()
{
    if (Front* front = latestFront())
        front->setPaused(true);
}

qintptr ScriptedRealtimeServer::clientSocketDescriptor() const
{
    const Front* front = latestFront();
    return front ? front->descriptor() : -1;
}

void ScriptedRealtimeServer::throttleReading(qint64 bytes, int intervalMs)
{
    if (Front* front = latestFront())
        front->setThrottle(bytes, intervalMs);
}

void ScriptedRealtimeServer::resumeReading()
{
    if (Front* front = latestFront())
        front->setPaused(false);
}

void ScriptedRealtimeServer::checkMessageRequest(const QJsonObject& event)
{
    // Out of the conversation, text only, forced to call the one tool it offers, whose
    // parameters are the message's seven texts, all required, nothing else allowed.
    const QJsonObject response = event.value(QLatin1String("response")).toObject();
    const QJsonArray tools = response.value(QLatin1String("tools")).toArray();
    const QJsonObject tool = tools.first().toObject();
    const QJsonObject parameters = tool.value(QLatin1String("parameters")).toObject();
    const QJsonObject properties = parameters.value(QLatin1String("properties")).toObject();
    const QJsonObject choice = response.value(QLatin1String("tool_choice")).toObject();
    // In order, as QJsonObject::keys() gives them.
    const QStringList fields{QStringLiteral("address"),  QStringLiteral("callback"),
                             QStringLiteral("identity"), QStringLiteral("problem"),
                             QStringLiteral("since"),    QStringLiteral("summary"),
                             QStringLiteral("urgency")};
    QStringList required = parameters[QLatin1String("required")].toVariant().toStringList();
    required.sort();
    bool ok = hasExactly(event, {"type", "response"}) &&
              hasExactly(response, {"conversation", "output_modalities", "instructions", "tools",
                                    "tool_choice", "max_output_tokens", "metadata"}) &&
              response[QLatin1String("conversation")] == QLatin1String("none") &&
              response[QLatin1String("output_modalities")] == QJsonArray{QStringLiteral("text")} &&
              response[QLatin1String("instructions")].isString() &&
              response[QLatin1String("max_output_tokens")].isDouble() &&
              response[QLatin1String("metadata")].isObject() && tools.size() == 1 &&
              hasExactly(tool, {"type", "name", "description", "parameters"}) &&
              tool[QLatin1String("type")] == QLatin1String("function") &&
              choice == QJsonObject{{QStringLiteral("type"), QStringLiteral("function")},
                                    {QStringLiteral("name"), tool[QLatin1String("name")]}} &&
              parameters[QLatin1String("type")] == QLatin1String("object") &&
              parameters[QLatin1String("additionalProperties")] == QJsonValue(false) &&
              properties.keys() == fields && required == fields;
    for (const QString& field : fields)
        ok = ok && properties[field][QLatin1String("type")] == QLatin1String("string");
    if (!ok)
        violation(QStringLiteral("malformed message request: ") + text(event).left(600));
}

} // namespace vemira::testing
