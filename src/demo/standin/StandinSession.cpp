#include "StandinSession.h"

#include "demo/MonotonicTime.h"
#include "demo/RealtimeEvents.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QWebSocket>

namespace vemira::e2e {

namespace {

constexpr int kRate = 24000;
// The provider's own silence setting for turn ends, as the client configures it.
constexpr int kSilenceSamples = kRate * 650 / 1000;
// Audio goes out ahead of real time, as the provider's does: 100 ms of voice every 50 ms.
constexpr int kDeltaBytes = 4800;
constexpr int kDeltaIntervalMs = 50;

} // namespace

StandinSession::StandinSession(QWebSocket* socket, const ConversationScript& script, int index,
                               MarksFile& marks, QObject* parent)
    : QObject(parent), m_socket(socket),
      m_assistantLines(script.linesOf(ScriptLine::Role::Assistant)),
      m_callerLines(script.linesOf(ScriptLine::Role::Caller)), m_message(script.message),
      m_company(script.company), m_index(index), m_marks(marks), m_detector(kSilenceSamples)
{
    m_sessionMarks.insert(QStringLiteral("connected"), monotonicNs());
    m_sessionMarks.insert(QStringLiteral("authorization"),
                          QString::fromUtf8(socket->request().rawHeader("Authorization")));
    m_sessionMarks.insert(QStringLiteral("url"), socket->requestUrl().toString());
    mark(QStringLiteral("connected"), m_sessionMarks.value(QStringLiteral("connected")));

    m_deltaTimer.setInterval(kDeltaIntervalMs);
    connect(&m_deltaTimer, &QTimer::timeout, this, &StandinSession::streamNextDelta);
    connect(socket, &QWebSocket::textMessageReceived, this, &StandinSession::receive);
    connect(socket, &QWebSocket::disconnected, this, [this] {
        m_deltaTimer.stop();
        mark(QStringLiteral("closed"), monotonicNs());
        mark(QStringLiteral("closeCode"), int(m_socket->closeCode()));
        mark(QStringLiteral("inputBytes"), m_inputBytes);
        Q_EMIT finished();
    });
}

void StandinSession::mark(const QString& key, const QJsonValue& value)
{
    m_sessionMarks.insert(key, value);
    QJsonArray sessions = m_marks.data().value(QStringLiteral("sessions")).toArray();
    while (sessions.size() <= m_index)
        sessions.append(QJsonObject());
    sessions.replace(m_index, m_sessionMarks);
    m_marks.set(QStringLiteral("sessions"), sessions);
}

void StandinSession::send(const QJsonObject& event)
{
    QJsonObject withId = event;
    withId.insert(QStringLiteral("event_id"), QStringLiteral("event_%1").arg(++m_eventCounter));
    m_socket->sendTextMessage(RealtimeEvents::text(withId));
}

void StandinSession::receive(const QString& text)
{
    const qint64 arrived = monotonicNs();
    const QJsonObject event = QJsonDocument::fromJson(text.toUtf8()).object();
    const QString type = event.value(QStringLiteral("type")).toString();
    RealtimeEvents::logClientEvent(event);
    if (type == QLatin1String("session.update")) {
        QJsonObject session = event.value(QStringLiteral("session")).toObject();
        if (session.contains(QStringLiteral("instructions")))
            m_sessionInstructions = session.value(QStringLiteral("instructions")).toString();
        const QJsonValue turns = RealtimeEvents::turnsCreateResponses(session);
        if (turns.isBool())
            m_createResponses = turns.toBool();
        session.insert(QStringLiteral("id"), QStringLiteral("sess_standin_%1").arg(m_index));
        session.insert(QStringLiteral("object"), QStringLiteral("realtime.session"));
        if (!m_configured) {
            m_configured = true;
            send(RealtimeEvents::sessionCreated(session));
            mark(QStringLiteral("instructions"), session.value(QStringLiteral("instructions")));
            mark(QStringLiteral("sessionConfig"), session);
        }
        send(RealtimeEvents::sessionUpdated(session));
        if (!m_sessionMarks.contains(QStringLiteral("readySent")))
            mark(QStringLiteral("readySent"), monotonicNs());
    } else if (RealtimeEvents::isMessageRequest(event)) {
        answerMessageRequest(event.value(QStringLiteral("response")).toObject(), arrived);
    } else if (type == QLatin1String("response.create")) {
        const QJsonObject response = event.value(QStringLiteral("response")).toObject();
        if (response.value(QStringLiteral("conversation")) == QLatin1String("none")) {
            // A connection check's one-token text response: answered at once, script untouched.
            for (const QJsonObject& answer :
                 RealtimeEvents::probeAnswer(QStringLiteral("resp_check_%1").arg(m_index)))
                send(answer);
            return;
        }
        const QJsonValue own = response.value(QStringLiteral("instructions"));
        if (!m_sessionMarks.contains(QStringLiteral("greetRequested"))) {
            mark(QStringLiteral("greetRequested"), arrived);
            mark(QStringLiteral("greetInstructions"), own);
        }
        startResponse(own.isString() ? own.toString() : m_sessionInstructions);
    } else if (type == QLatin1String("input_audio_buffer.append")) {
        appendAudio(
            QByteArray::fromBase64(event.value(QStringLiteral("audio")).toString().toLatin1()),
            arrived);
    }
}

void StandinSession::appendAudio(const QByteArray& pcm, qint64 arrivedNs)
{
    if (m_inputBytes == 0)
        mark(QStringLiteral("firstAudio"), arrivedNs);
    m_inputBytes += pcm.size();
    for (const SpeechDetector::Event& e : m_detector.push(pcm)) {
        const int audioMs = int(e.sample * 1000 / kRate);
        const QString itemId = QStringLiteral("item_caller_%1").arg(m_nextCaller + 1);
        if (e.kind == SpeechDetector::Event::Kind::Started) {
            QJsonArray onsets = m_sessionMarks.value(QStringLiteral("callerOnsets")).toArray();
            onsets.append(QJsonObject{{QStringLiteral("arrived"), arrivedNs},
                                      {QStringLiteral("audioMs"), audioMs}});
            mark(QStringLiteral("callerOnsets"), onsets);
            send(RealtimeEvents::speechStarted(audioMs, itemId));
            continue;
        }
        send(RealtimeEvents::speechStopped(audioMs, itemId));
        send(RealtimeEvents::audioCommitted(itemId));
        // No recogniser here: the caller says the scripted lines, in order.
        const QString transcript =
            m_nextCaller < m_callerLines.size() ? m_callerLines.at(m_nextCaller).text : QString();
        ++m_nextCaller;
        send(RealtimeEvents::callerTranscript(transcript, itemId));
        if (m_createResponses)
            startResponse(m_sessionInstructions);
    }
}

void StandinSession::startResponse(const QString& instructions)
{
    if (m_speaking || m_nextAssistant >= m_assistantLines.size())
        return;
    m_speaking = &m_assistantLines.at(m_nextAssistant++);
    m_spokenText = m_speaking->text;
    if (!m_company.isEmpty() && !instructions.contains(m_company))
        m_spokenText.replace(m_company, QStringLiteral("notre entreprise"));
    m_responseId = QStringLiteral("resp_%1").arg(m_nextAssistant);
    m_sentBytes = 0;
    send(RealtimeEvents::responseCreated(m_responseId));
    streamNextDelta();
    m_deltaTimer.start();
}

void StandinSession::streamNextDelta()
{
    if (!m_speaking)
        return;
    const QByteArray chunk = m_speaking->pcm.mid(m_sentBytes, kDeltaBytes);
    if (m_sentBytes == 0) {
        QJsonArray responses = m_sessionMarks.value(QStringLiteral("responses")).toArray();
        responses.append(QJsonObject{{QStringLiteral("id"), m_speaking->id},
                                     {QStringLiteral("firstDeltaSent"), monotonicNs()},
                                     {QStringLiteral("onsetSample"), m_speaking->onsetSample}});
        mark(QStringLiteral("responses"), responses);
    }
    send(RealtimeEvents::audioDelta(chunk, m_responseId));
    m_sentBytes += chunk.size();
    if (m_sentBytes >= m_speaking->pcm.size())
        finishResponse();
}

void StandinSession::finishResponse()
{
    m_deltaTimer.stop();
    const ScriptLine& line = *m_speaking;
    m_speaking = nullptr;
    send(RealtimeEvents::audioDone(m_responseId));
    send(RealtimeEvents::aiTranscript(m_spokenText, m_responseId));
    // Token counts of the order a real session reports: about 10 audio tokens per second.
    const int audioOut = int(line.seconds() * 10) + 1;
    const int textOut = int(line.text.size() / 4) + 1;
    const int inputAudio = int(m_inputBytes / 4800);
    const int inputText = 900 + 40 * m_nextAssistant;
    QJsonArray responses = m_sessionMarks.value(QStringLiteral("responses")).toArray();
    QJsonObject last = responses.last().toObject();
    last.insert(QStringLiteral("inputTokens"), inputText + inputAudio);
    last.insert(QStringLiteral("outputTokens"), audioOut + textOut);
    last.insert(QStringLiteral("done"), monotonicNs());
    responses.replace(responses.size() - 1, last);
    mark(QStringLiteral("responses"), responses);
    send(RealtimeEvents::responseDone(m_responseId, inputText + inputAudio, audioOut + textOut));
}

void StandinSession::answerMessageRequest(const QJsonObject& request, qint64 arrivedNs)
{
    // The model fills in the forced tool call from the conversation; here the script says what
    // the caller's lines hold. Out of the conversation, text only: no audio, no transcript.
    mark(QStringLiteral("messageRequested"), arrivedNs);
    const QString id = QStringLiteral("resp_message");
    const QString tool = request[QLatin1String("tool_choice")][QLatin1String("name")].toString();
    const QString arguments = QString::fromUtf8(m_message);
    send(RealtimeEvents::responseCreated(id));
    send(RealtimeEvents::functionCallArgumentsDone(id, tool, arguments));
    // The whole conversation is read again: text tokens of the order of its length.
    const int inputTokens = 1200 + 60 * (m_nextAssistant + m_nextCaller);
    const int outputTokens = int(arguments.size() / 4) + 1;
    send(RealtimeEvents::functionCallDone(id, request.value(QStringLiteral("metadata")).toObject(),
                                          tool, arguments, inputTokens, outputTokens));
    mark(QStringLiteral("messageAnswered"), monotonicNs());
    mark(QStringLiteral("messageInputTokens"), inputTokens);
    mark(QStringLiteral("messageOutputTokens"), outputTokens);
}

} // namespace vemira::e2e
