#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>

namespace vemira {

// Server events of the realtime service, written as the provider writes them: the
// demonstration's stand-in speaks with these, and so does the tests' scripted server (which
// derives from this to call them by its own name).
struct RealtimeEvents {
    static QJsonObject sessionCreated(const QJsonObject& session);
    static QJsonObject sessionUpdated(const QJsonObject& session = QJsonObject());
    static QJsonObject responseCreated(const QString& id);
    static QJsonObject responseDone(const QString& id, qint64 inputTokens, qint64 outputTokens);
    static QJsonObject responseDoneWithoutUsage(const QString& id);
    // A response the provider could not produce, as it reports one (status_details.error).
    static QJsonObject responseFailed(const QString& id, const QString& code,
                                      const QString& type = QStringLiteral("invalid_request_error"),
                                      const QString& message = QString());
    // The answer to a message request: the tool call's arguments, then the response done with
    // that one function call as its output.
    static QJsonObject functionCallArgumentsDone(const QString& id, const QString& tool,
                                                 const QString& arguments);
    static QJsonObject functionCallDone(const QString& id, const QJsonObject& metadata,
                                        const QString& tool, const QString& arguments,
                                        qint64 inputTokens, qint64 outputTokens);
    // Whether a client's response.create asks for the call's message (it carries tools).
    static bool isMessageRequest(const QJsonObject& event);
    // The answer to a connection check's one-token text response: completed, or failed with
    // `failure` when it is not empty.
    static QList<QJsonObject> probeAnswer(const QString& id, const QString& failure = QString());
    // What a session (as sent in a session.update) says of caller turns creating responses:
    // a bool, or undefined when it leaves that unchanged.
    static QJsonValue turnsCreateResponses(const QJsonObject& session);

    // An event as it travels: compact JSON text.
    static QString text(const QJsonObject& event);
    // Appends a client event to the file named by VEMIRA_CLIENT_EVENTS_LOG (when set), for the
    // check against the provider's SDK types; audio is cut short, its shape is what is checked.
    static void logClientEvent(QJsonObject event);

    static QJsonObject audioDelta(const QByteArray& pcm,
                                  const QString& responseId = QStringLiteral("resp"));
    static QJsonObject audioDone(const QString& responseId);
    static QJsonObject aiTranscript(const QString& text, const QString& responseId = QString());
    static QJsonObject callerTranscript(const QString& text,
                                        const QString& itemId = QStringLiteral("item_1"));
    static QJsonObject callerTranscriptFailed(const QString& itemId);
    static QJsonObject speechStarted(int audioStartMs = 1200, const QString& itemId = QString());
    static QJsonObject speechStopped(int audioEndMs, const QString& itemId);
    static QJsonObject audioCommitted(const QString& itemId);
    static QJsonObject error(const QString& code, const QString& message = QString());
};

} // namespace vemira
