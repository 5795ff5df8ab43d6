#pragma once

#include "demo/ConversationScript.h"
#include "demo/MarksFile.h"
#include "demo/SpeechDetector.h"

#include <QJsonObject>
#include <QObject>
#include <QTimer>

class QWebSocket;

namespace vemira::e2e {

// One realtime session as the provider would run it, for a scripted conversation: it confirms
// the configuration, speaks the assistant's lines as base64 audio deltas when a response is
// due, listens to the appended audio with a plain voice-activity detector and, when a caller
// turn ends, reports the caller's (scripted) transcript and answers with the next line.
// Like the provider, a response answers from its own instructions when it carries some, and
// from the session's otherwise: a line naming the business is said with the name only when
// those instructions hold it.
class StandinSession : public QObject {
    Q_OBJECT

public:
    StandinSession(QWebSocket* socket, const ConversationScript& script, int index,
                   MarksFile& marks, QObject* parent = nullptr);

Q_SIGNALS:
    void finished();

private:
    void receive(const QString& text);
    void send(const QJsonObject& event);
    void mark(const QString& key, const QJsonValue& value);
    void appendAudio(const QByteArray& pcm, qint64 arrivedNs);
    void startResponse(const QString& instructions);
    void streamNextDelta();
    void finishResponse();
    void answerMessageRequest(const QJsonObject& request, qint64 arrivedNs);

    QWebSocket* m_socket;
    QList<ScriptLine> m_assistantLines;
    QList<ScriptLine> m_callerLines;
    QByteArray m_message;
    QString m_company;
    QString m_sessionInstructions;
    bool m_createResponses = true;
    int m_index;
    MarksFile& m_marks;
    QJsonObject m_sessionMarks;
    SpeechDetector m_detector;
    bool m_configured = false;
    int m_nextAssistant = 0;
    int m_nextCaller = 0;
    int m_eventCounter = 0;
    qint64 m_inputBytes = 0;

    // The response being streamed.
    QTimer m_deltaTimer;
    QString m_responseId;
    const ScriptLine* m_speaking = nullptr;
    QString m_spokenText; // what the model says of that line, knowing only its instructions
    qsizetype m_sentBytes = 0;
};

} // namespace vemira::e2e
