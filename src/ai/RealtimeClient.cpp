#include "ai/RealtimeClient.h"

#include "ai/MessageRequest.h"
#include "ai/RealtimeCallControl.h"
#include "ai/RealtimeProtocol.h"
#include "ai/WireBase64.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <QNetworkRequest>
#include <QSslConfiguration>
#include <QSslError>
#include <QWebSocket>
#include <QtGlobal>

namespace vemira {

namespace {

// Callbacks are copied before the call: the owner may replace or clear them from inside.
template <typename Callback, typename... Args> void fire(const Callback& callback, Args&&... args)
{
    if (callback) {
        Callback copy = callback;
        copy(std::forward<Args>(args)...);
    }
}

// How long a politely closed socket may take to deliver its close frame before it is cut.
constexpr double closeGraceSeconds = 5;

bool hasControlCharacters(const QString& text)
{
    for (const QChar c : text) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            return true;
    }
    return false;
}

} // namespace

RealtimeClient::RealtimeClient(Clock& clock, QObject* parent) : QObject(parent), m_clock(clock) {}

RealtimeClient::~RealtimeClient()
{
    teardown();
    for (auto& [socket, grace] : m_closing) {
        grace.reset();
        if (socket)
            socket->deleteLater();
    }
}

int RealtimeClient::waitingFrames() const
{
    return static_cast<int>(m_queue.size() + m_inFlight.size());
}

void RealtimeClient::connect(const QString& key, const QString& model, const QString& voice,
                             const QString& instructions)
{
    QPointer<RealtimeClient> self(this);
    close();
    if (!self)
        return;
    m_meter = ConversationUsageMeter(model);
    m_audioBytesSinceUsage = 0;
    pushUsage();
    if (!self)
        return;

    teardown(); // a usage callback may have opened a session meanwhile
    const quint64 session = ++m_session;
    m_active = true;

    const auto url = realtime::endpoint(model, qEnvironmentVariable("VEMIRA_REALTIME_URL"));
    if (!url || hasControlCharacters(key)) {
        // Reported like any connection that could not open, after connect() has returned.
        qWarning("vemira: realtime session not opened: %s",
                 qUtf8Printable(url ? QStringLiteral("clé illisible") : url.error().message()));
        QMetaObject::invokeMethod(
            this,
            [this, session] {
                if (session == m_session)
                    receiveFailed();
            },
            Qt::QueuedConnection);
        send(realtime::sessionConfiguration(model, voice, instructions));
        return;
    }

    QNetworkRequest request(url.value());
    request.setRawHeader("Authorization", "Bearer " + key.toUtf8());

    m_socket = new QWebSocket();
    if (!m_extraCaCertificates.isEmpty()) {
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.addCaCertificates(m_extraCaCertificates);
        m_socket->setSslConfiguration(tls);
    }
    QObject::connect(m_socket, &QWebSocket::connected, this,
                     [this, session] { onConnected(session); });
    QObject::connect(m_socket, &QWebSocket::disconnected, this,
                     [this, session] { onSocketFailure(session); });
#if QT_VERSION >= QT_VERSION_CHECK(6, 5, 0)
    const auto errorSignal = &QWebSocket::errorOccurred;
#else
    const auto errorSignal = QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error);
#endif
    QObject::connect(m_socket, errorSignal, this, [this, session](QAbstractSocket::SocketError) {
        // A short write reports here too; the send side owns that one.
        if (!m_writing)
            onSocketFailure(session);
    });
    // Never ignored: the handshake then fails and the error above ends the session; this only
    // keeps the reason for the message.
    QObject::connect(m_socket, &QWebSocket::sslErrors, this,
                     [this, session](const QList<QSslError>& errors) {
                         if (session == m_session && m_certificateRefused.isEmpty())
                             m_certificateRefused = realtime::certificateRefusedMessage(errors);
                     });
    QObject::connect(m_socket, &QWebSocket::textMessageReceived, this,
                     [this, session](const QString& text) {
                         if (session == m_session)
                             receiveText(text);
                     });
    QObject::connect(m_socket, &QWebSocket::binaryMessageReceived, this,
                     [this, session](const QByteArray& bytes) {
                         if (session == m_session)
                             receiveFrame(bytes);
                     });
    QObject::connect(m_socket, &QWebSocket::bytesWritten, this, [this, session](qint64 bytes) {
        if (session == m_session)
            onBytesWritten(bytes);
    });

    m_handshakeTimeout = m_clock.schedule(handshakeTimeoutSeconds, this, [this, session] {
        if (session != m_session || m_connected)
            return;
        if (m_socket) {
            QObject::disconnect(m_socket, nullptr, this, nullptr);
            m_socket->abort();
        }
        receiveFailed();
    });

    m_socket->open(request);
    m_instructions = instructions;
    send(realtime::sessionConfiguration(model, voice, instructions));
}

void RealtimeClient::append(const QByteArray& pcm)
{
    if (!m_ready)
        return;
    m_meter.addInputSeconds(double(pcm.size()) / double(realtime::bytesPerSecond));
    m_audioBytesSinceUsage += pcm.size();
    if (m_audioBytesSinceUsage >= realtime::bytesPerSecond) {
        m_audioBytesSinceUsage = 0;
        QPointer<RealtimeClient> self(this);
        pushUsage();
        if (!self)
            return;
    }
    QString frame = realtime::audioAppendFrame(pcm);
    const qint64 size = frame.size(); // base64 in JSON: ASCII, one byte per character
    offer(Frame{std::move(frame), size});
}

void RealtimeClient::greet()
{
    send(realtime::greetingRequest(m_instructions));
}

void RealtimeClient::requestMessage(const QJsonObject& request)
{
    send(request);
}

void RealtimeClient::requestProbeResponse()
{
    send(realtime::probeResponseRequest());
}

void RealtimeClient::awaitResponses(double seconds, std::function<void(bool settled)> done)
{
    m_settled = std::move(done);
    m_settleTimeout.reset();
    if (m_active && !m_receiveEnded && !m_inProgress.isEmpty()) {
        const quint64 session = m_session;
        m_settleTimeout = m_clock.schedule(seconds, this, [this, session] {
            if (session != m_session || !m_settled)
                return;
            auto done = std::exchange(m_settled, nullptr);
            done(false);
        });
        return;
    }
    // Nothing to wait for, or nobody left to answer.
    if (auto settled = std::exchange(m_settled, nullptr))
        settled(m_inProgress.isEmpty());
}

void RealtimeClient::settleIfIdle()
{
    if (!m_settled || (!m_inProgress.isEmpty() && !m_receiveEnded))
        return;
    m_settleTimeout.reset();
    auto done = std::exchange(m_settled, nullptr);
    done(m_inProgress.isEmpty());
}

bool RealtimeClient::updateInstructions(const QString& text)
{
    if (!m_ready)
        return false;
    m_pendingInstructions = text;
    m_instructions = text;
    send(realtime::instructionsUpdate(text));
    return true;
}

void RealtimeClient::sayGoodbye()
{
    send(realtime::goodbyeRequest(m_instructions));
}

void RealtimeClient::holdResponses(bool held)
{
    if (held == m_held)
        return;
    m_held = held;
    send(realtime::turnTakingUpdate(!held));
    if (held && m_responseActive)
        send(realtime::responseCancel());
}

void RealtimeClient::addSystemNote(const QString& text)
{
    send(realtime::systemNote(text));
}

void RealtimeClient::close()
{
    const bool wasReady = m_ready;
    teardown();
    // Pushed last, so that the owner sees a client already closed if it reacts.
    if (wasReady)
        pushUsage();
}

void RealtimeClient::teardown()
{
    m_ready = false;
    m_sessionEnded = false;
    m_held = false;
    m_responseActive = false;
    m_pendingInstructions.reset();
    m_active = false;
    ++m_session;
    m_queue.clear();
    m_inFlight.clear();
    m_writtenCredit = 0;
    m_connected = false;
    m_receiveEnded = false;
    m_sendEnded = false;
    m_certificateRefused.clear();
    m_handshakeTimeout.reset();
    m_inProgress.clear();
    m_cut.clear();
    m_audible.clear();
    m_audibleUntil = 0;
    m_lastTranscribed.clear();
    m_settled = nullptr;
    m_settleTimeout.reset();
    if (QWebSocket* socket = std::exchange(m_socket, nullptr))
        retire(socket);
}

void RealtimeClient::retire(QWebSocket* socket)
{
    QObject::disconnect(socket, nullptr, this, nullptr);
    if (socket->state() != QAbstractSocket::ConnectedState) {
        socket->abort();
        socket->deleteLater();
        return;
    }
    // Normal closure, then let the close frame leave; a peer that stopped reading would keep
    // the socket (and everything queued in it) forever, hence the grace period.
    std::erase_if(m_closing, [](const auto& entry) { return entry.first.isNull(); });
    QObject::connect(socket, &QWebSocket::disconnected, socket, &QObject::deleteLater);
    auto grace = m_clock.schedule(closeGraceSeconds, socket, [socket] {
        socket->abort();
        socket->deleteLater();
    });
    m_closing.emplace_back(socket, std::move(grace));
    socket->close(QWebSocketProtocol::CloseCodeNormal);
}

void RealtimeClient::send(const QJsonObject& event)
{
    const QByteArray json = QJsonDocument(event).toJson(QJsonDocument::Compact);
    offer(Frame{QString::fromUtf8(json), json.size()});
}

void RealtimeClient::offer(Frame frame)
{
    if (!m_active)
        return;
    if (waitingFrames() >= maxWaitingFrames) {
        fire(onError, realtime::queueFullMessage());
        return;
    }
    m_queue.push_back(std::move(frame));
    flush();
}

void RealtimeClient::flush()
{
    while (m_active && m_connected && !m_sendEnded && !m_queue.empty()) {
        if (!m_socket || m_socket->state() != QAbstractSocket::ConnectedState) {
            sendFailed();
            return;
        }
        const Frame frame = std::move(m_queue.front());
        m_queue.pop_front();
        m_writing = true;
        const qint64 written = m_socket->sendTextMessage(frame.text);
        m_writing = false;
        if (written != frame.utf8Bytes) {
            sendFailed();
            return;
        }
        m_inFlight.push_back(wireSize(frame.utf8Bytes));
    }
}

qint64 RealtimeClient::wireSize(qint64 payloadBytes) const
{
    // A client frame: 2 header bytes, a 2- or 8-byte extended length, a 4-byte mask.
    const auto header = [](qint64 size) {
        return 2 + (size > 0xFFFF ? 8 : size > 125 ? 2 : 0) + 4;
    };
    const qint64 maxFrame = qint64(m_socket->outgoingFrameSize());
    qint64 total = 0;
    qint64 left = payloadBytes;
    do {
        const qint64 size = std::min(left, maxFrame);
        total += header(size) + size;
        left -= size;
    } while (left > 0);
    return total;
}

void RealtimeClient::onConnected(quint64 session)
{
    if (session != m_session)
        return;
    m_connected = true;
    m_handshakeTimeout.reset();
    flush();
}

void RealtimeClient::onSocketFailure(quint64 session)
{
    if (session == m_session)
        receiveFailed();
}

void RealtimeClient::onBytesWritten(qint64 bytes)
{
    // Bytes of the upgrade request or of Qt's own control frames may come in too, and over
    // TLS the bytes reported are encrypted ones, each record's overhead included. They only
    // retire a frame a few bytes early, never keep one forever, and the credit is dropped
    // whenever nothing is left waiting (measured on a slow TLS link: the count stays within
    // about a frame of what Qt holds).
    m_writtenCredit += bytes;
    while (!m_inFlight.empty() && m_writtenCredit >= m_inFlight.front()) {
        m_writtenCredit -= m_inFlight.front();
        m_inFlight.pop_front();
    }
    if (m_inFlight.empty())
        m_writtenCredit = 0;
}

void RealtimeClient::receiveFailed()
{
    if (!m_active || m_receiveEnded)
        return;
    m_receiveEnded = true;
    QPointer<RealtimeClient> self(this);
    fire(onError,
         m_certificateRefused.isEmpty() ? realtime::receiveFailedMessage() : m_certificateRefused);
    if (self)
        settleIfIdle(); // no response.done can come any more
}

void RealtimeClient::sendFailed()
{
    if (!m_active || m_sendEnded)
        return;
    m_sendEnded = true;
    fire(onError, realtime::sendFailedMessage());
}

void RealtimeClient::pushUsage()
{
    if (onUsage)
        fire(onUsage, m_meter.snapshot());
}

void RealtimeClient::receiveText(const QString& text)
{
    if (!m_active || m_receiveEnded)
        return;
    // The AI's voice arrives as a dozen of these per second: recognised without a JSON tree.
    const auto scan = realtime::scanAudioDelta(text);
    if (scan.kind == realtime::AudioDeltaScan::NotRecognised) {
        receiveFrame(text.toUtf8());
        return;
    }
    if (!scan.pcm.isEmpty())
        playAudio(scan.pcm, scan.responseId);
}

void RealtimeClient::playAudio(const QByteArray& pcm, const QString& responseId)
{
    if (!responseId.isEmpty()) {
        if (m_cut.contains(responseId))
            return; // the caller already spoke over it
        const double now = m_clock.uptime();
        if (responseId != m_audible) {
            m_audible = responseId;
            m_audibleUntil = now;
        }
        m_audibleUntil =
            std::max(m_audibleUntil, now) + double(pcm.size()) / double(realtime::bytesPerSecond);
    }
    fire(onAudio, pcm);
}

void RealtimeClient::interrupted()
{
    // The caller speaks: what is still being generated, and what is still playing, will not
    // be heard. Their remaining audio is dropped here and their line marked as cut.
    //
    // The server is not told how much was heard (no "conversation.item.truncate"). Its
    // audio_end_ms must be what the caller actually heard, and that is only known after the
    // bridge's playback buffer and the phone application's own buffering, which we cannot
    // measure; a value past the audio the server holds is answered by an "error" event,
    // which ends the call. Truncating also deletes the item's transcript on the server side,
    // so the record would lose the words that were heard. The model keeps the whole text in
    // its context; the instructions make it restate the message at the end, so a sentence the
    // caller missed is said again, and the record shows where the AI was cut off.
    const double now = m_clock.uptime();
    for (const QString& id : std::as_const(m_inProgress))
        m_cut.insert(id);
    if (!m_audible.isEmpty() && m_audibleUntil > now)
        m_cut.insert(m_audible);
    QPointer<RealtimeClient> self(this);
    if (!m_lastTranscribed.isEmpty() && m_cut.contains(m_lastTranscribed)) {
        m_lastTranscribed.clear();
        fire(onAILineCut);
        if (!self)
            return;
    }
    fire(onInterruption);
}

void RealtimeClient::responseEnded(const QJsonObject& response, const QString& id)
{
    m_inProgress.remove(id);
    ResponseOutcome outcome;
    outcome.id = id;
    outcome.status = response.value(QLatin1String("status")).toString();
    QPointer<RealtimeClient> self(this);
    if (outcome.status == QLatin1String("failed")) {
        const QJsonObject details = response.value(QLatin1String("status_details")).toObject();
        const QJsonObject error = details.value(QLatin1String("error")).toObject();
        const QString code = error.value(QLatin1String("code")).toString();
        const QString type = error.value(QLatin1String("type")).toString();
        outcome.reason = !code.isEmpty()   ? code
                         : !type.isEmpty() ? type
                                           : QStringLiteral("inconnue");
        outcome.noCredit = realtime::meansNoCredit(code) || realtime::meansNoCredit(type);
        QString reason = outcome.reason;
        const QString message = error.value(QLatin1String("message")).toString();
        if (!message.isEmpty())
            reason += QStringLiteral(" — ") + message;
        fire(onNotice, realtime::failedResponseNotice(reason));
        if (!self)
            return;
    }
    fire(onResponseDone, outcome);
    if (!self)
        return;
    if (outcome.noCredit) {
        fire(onError, realtime::creditExhaustedMessage());
        if (!self)
            return;
    }
    settleIfIdle();
}

void RealtimeClient::receiveFrame(const QByteArray& bytes)
{
    if (!m_active || m_receiveEnded)
        return;
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError) {
        receiveFailed();
        return;
    }
    if (!document.isObject())
        return;
    const QJsonObject event = document.object();
    const QJsonValue type = event.value(QLatin1String("type"));
    if (type.isString())
        handle(type.toString(), event);
}

void RealtimeClient::handle(const QString& type, const QJsonObject& event)
{
    if (!m_active)
        return; // a closed session hears nothing more, whoever delivers the event
    const auto stringAt = [](const QJsonObject& object, QLatin1String key) {
        const QJsonValue value = object.value(key);
        return value.isString() ? std::optional<QString>(value.toString()) : std::nullopt;
    };
    const auto responseId = [&](QJsonObject* response) {
        *response = event.value(QLatin1String("response")).toObject();
        return stringAt(*response, QLatin1String("id"));
    };
    QJsonObject response;

    if (type == QLatin1String("session.updated")) {
        if (!m_ready) {
            m_ready = true;
            QPointer<RealtimeClient> self(this);
            fire(onReady);
            if (!self)
                return;
        }
        const auto applied = stringAt(event.value(QLatin1String("session")).toObject(),
                                      QLatin1String("instructions"));
        if (m_pendingInstructions && applied && *applied == *m_pendingInstructions) {
            m_pendingInstructions.reset();
            fire(onInstructionsApplied);
        }
    } else if (type == QLatin1String("response.created")) {
        m_responseActive = true;
        if (m_held)
            send(realtime::responseCancel());
        if (const auto id = responseId(&response)) {
            if (!m_meter.wasCounted(*id))
                m_inProgress.insert(*id);
            m_meter.responseCreated(*id);
            pushUsage();
        }
    } else if (type == QLatin1String("response.done")) {
        m_responseActive = false;
        if (const auto id = responseId(&response)) {
            const QJsonValue usage = response.value(QLatin1String("usage"));
            m_meter.completed(*id,
                              usage.isObject() ? std::optional(usage.toObject()) : std::nullopt);
            QPointer<RealtimeClient> self(this);
            pushUsage();
            if (self && MessageRequest::isAnswer(response))
                fire(onMessageResponse, response);
            if (self)
                responseEnded(response, *id);
        }
    } else if (type == QLatin1String("response.output_audio.delta")) {
        const QJsonValue delta = event.value(QLatin1String("delta"));
        if (!delta.isString())
            return;
        // An empty delta carries no sound: not worth waking the audio chain for.
        const auto pcm = realtime::decodeBase64(delta.toString());
        // Held: the manager speaks, the AI's voice is not played.
        if (pcm && !pcm->isEmpty() && !m_held)
            playAudio(*pcm, stringAt(event, QLatin1String("response_id")).value_or(QString()));
    } else if (type == QLatin1String("response.output_audio_transcript.done")) {
        // Held: the words were never played to the caller.
        if (m_held)
            return;
        if (const auto text = stringAt(event, QLatin1String("transcript"))) {
            const QString id = stringAt(event, QLatin1String("response_id")).value_or(QString());
            const bool cut = !id.isEmpty() && m_cut.contains(id);
            m_lastTranscribed = cut ? QString() : id;
            fire(onTranscript, realtime::aiSpeaker(),
                 cut && !text->endsWith(realtime::cutMark()) ? *text + realtime::cutMark() : *text);
        }
    } else if (type == QLatin1String("conversation.item.input_audio_transcription.completed")) {
        if (const auto text = stringAt(event, QLatin1String("transcript")))
            fire(onTranscript, realtime::callerSpeaker(), *text);
    } else if (type == QLatin1String("conversation.item.input_audio_transcription.failed")) {
        // The caller spoke; the record says so even when the words were lost.
        fire(onTranscript, realtime::callerSpeaker(), realtime::inaudibleText());
    } else if (type == QLatin1String("input_audio_buffer.speech_started")) {
        interrupted();
    } else if (type == QLatin1String("error")) {
        const auto code =
            stringAt(event.value(QLatin1String("error")).toObject(), QLatin1String("code"));
        const QString message =
            realtime::serverErrorMessage(code.value_or(QStringLiteral("erreur")));
        if (realtime::serverErrorEndsSession(code))
            m_sessionEnded = true;
        if (onServerError)
            fire(onServerError, code, message);
        else
            fire(onError, message);
    }
}

} // namespace vemira
