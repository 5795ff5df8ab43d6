#include "RealtimeEvents.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

namespace vemira {

namespace {

QJsonObject usage(qint64 inputTokens, qint64 outputTokens)
{
    return QJsonObject{{QStringLiteral("total_tokens"), inputTokens + outputTokens},
                       {QStringLiteral("input_tokens"), inputTokens},
                       {QStringLiteral("output_tokens"), outputTokens}};
}

QJsonObject response(const QString& id, const QString& status)
{
    return QJsonObject{{QStringLiteral("id"), id},
                       {QStringLiteral("object"), QStringLiteral("realtime.response")},
                       {QStringLiteral("status"), status}};
}

QJsonObject event(const QString& type, const QString& key, const QJsonValue& value)
{
    return QJsonObject{{QStringLiteral("type"), type}, {key, value}};
}

} // namespace

QJsonObject RealtimeEvents::sessionCreated(const QJsonObject& session)
{
    return event(QStringLiteral("session.created"), QStringLiteral("session"), session);
}

QJsonObject RealtimeEvents::sessionUpdated(const QJsonObject& session)
{
    QJsonObject updated =
        event(QStringLiteral("session.updated"), QStringLiteral("session"), session);
    updated.insert(QStringLiteral("event_id"), QStringLiteral("event_session"));
    return updated;
}

QJsonObject RealtimeEvents::responseCreated(const QString& id)
{
    return event(QStringLiteral("response.created"), QStringLiteral("response"),
                 response(id, QStringLiteral("in_progress")));
}

QJsonObject RealtimeEvents::responseDone(const QString& id, qint64 inputTokens, qint64 outputTokens)
{
    QJsonObject done = response(id, QStringLiteral("completed"));
    done.insert(QStringLiteral("usage"), usage(inputTokens, outputTokens));
    return event(QStringLiteral("response.done"), QStringLiteral("response"), done);
}

QJsonObject RealtimeEvents::responseDoneWithoutUsage(const QString& id)
{
    return event(QStringLiteral("response.done"), QStringLiteral("response"),
                 response(id, QStringLiteral("cancelled")));
}

QJsonObject RealtimeEvents::responseFailed(const QString& id, const QString& code,
                                           const QString& type, const QString& message)
{
    QJsonObject failed = response(id, QStringLiteral("failed"));
    failed.insert(
        QStringLiteral("status_details"),
        QJsonObject{{QStringLiteral("type"), QStringLiteral("failed")},
                    {QStringLiteral("error"), QJsonObject{{QStringLiteral("type"), type},
                                                          {QStringLiteral("code"), code},
                                                          {QStringLiteral("message"), message}}}});
    failed.insert(QStringLiteral("usage"), usage(0, 0));
    return event(QStringLiteral("response.done"), QStringLiteral("response"), failed);
}

QJsonObject RealtimeEvents::functionCallArgumentsDone(const QString& id, const QString& tool,
                                                      const QString& arguments)
{
    return QJsonObject{
        {QStringLiteral("type"), QStringLiteral("response.function_call_arguments.done")},
        {QStringLiteral("response_id"), id},
        {QStringLiteral("item_id"), QStringLiteral("item_message")},
        {QStringLiteral("output_index"), 0},
        {QStringLiteral("call_id"), QStringLiteral("call_message")},
        {QStringLiteral("name"), tool},
        {QStringLiteral("arguments"), arguments}};
}

QJsonObject RealtimeEvents::functionCallDone(const QString& id, const QJsonObject& metadata,
                                             const QString& tool, const QString& arguments,
                                             qint64 inputTokens, qint64 outputTokens)
{
    QJsonObject done = response(id, QStringLiteral("completed"));
    done.insert(QStringLiteral("conversation_id"), QJsonValue());
    done.insert(QStringLiteral("metadata"), metadata);
    done.insert(QStringLiteral("output_modalities"), QJsonArray{QStringLiteral("text")});
    done.insert(QStringLiteral("output"),
                QJsonArray{QJsonObject{{QStringLiteral("id"), QStringLiteral("item_message")},
                                       {QStringLiteral("type"), QStringLiteral("function_call")},
                                       {QStringLiteral("status"), QStringLiteral("completed")},
                                       {QStringLiteral("name"), tool},
                                       {QStringLiteral("call_id"), QStringLiteral("call_message")},
                                       {QStringLiteral("arguments"), arguments}}});
    done.insert(QStringLiteral("usage"), usage(inputTokens, outputTokens));
    return event(QStringLiteral("response.done"), QStringLiteral("response"), done);
}

bool RealtimeEvents::isMessageRequest(const QJsonObject& event)
{
    return event.value(QLatin1String("type")) == QLatin1String("response.create") &&
           event[QLatin1String("response")].toObject().contains(QLatin1String("tools"));
}

QList<QJsonObject> RealtimeEvents::probeAnswer(const QString& id, const QString& failure)
{
    return {responseCreated(id),
            failure.isEmpty() ? responseDone(id, 24, 1) : responseFailed(id, failure)};
}

QJsonValue RealtimeEvents::turnsCreateResponses(const QJsonObject& session)
{
    return session[QLatin1String("audio")][QLatin1String("input")][QLatin1String("turn_detection")]
                  [QLatin1String("create_response")];
}

QString RealtimeEvents::text(const QJsonObject& event)
{
    return QString::fromUtf8(QJsonDocument(event).toJson(QJsonDocument::Compact));
}

void RealtimeEvents::logClientEvent(QJsonObject event)
{
    static const QString log = qEnvironmentVariable("VEMIRA_CLIENT_EVENTS_LOG");
    QFile file(log);
    if (log.isEmpty() || !file.open(QIODevice::Append))
        return;
    if (event.value(QLatin1String("audio")).isString())
        event.insert(QStringLiteral("audio"), QStringLiteral("AAAA"));
    file.write(text(event).toUtf8() + '\n');
}

QJsonObject RealtimeEvents::audioDelta(const QByteArray& pcm, const QString& responseId)
{
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("response.output_audio.delta")},
                       {QStringLiteral("response_id"), responseId},
                       {QStringLiteral("item_id"), QStringLiteral("item_") + responseId},
                       {QStringLiteral("output_index"), 0},
                       {QStringLiteral("content_index"), 0},
                       {QStringLiteral("delta"), QString::fromLatin1(pcm.toBase64())}};
}

QJsonObject RealtimeEvents::audioDone(const QString& responseId)
{
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("response.output_audio.done")},
                       {QStringLiteral("response_id"), responseId},
                       {QStringLiteral("item_id"), QStringLiteral("item_") + responseId}};
}

QJsonObject RealtimeEvents::aiTranscript(const QString& text, const QString& responseId)
{
    QJsonObject transcript{
        {QStringLiteral("type"), QStringLiteral("response.output_audio_transcript.done")},
        {QStringLiteral("output_index"), 0},
        {QStringLiteral("content_index"), 0},
        {QStringLiteral("transcript"), text}};
    if (!responseId.isEmpty()) {
        transcript.insert(QStringLiteral("response_id"), responseId);
        transcript.insert(QStringLiteral("item_id"), QStringLiteral("item_") + responseId);
    }
    return transcript;
}

QJsonObject RealtimeEvents::callerTranscript(const QString& text, const QString& itemId)
{
    return QJsonObject{{QStringLiteral("type"),
                        QStringLiteral("conversation.item.input_audio_transcription.completed")},
                       {QStringLiteral("item_id"), itemId},
                       {QStringLiteral("content_index"), 0},
                       {QStringLiteral("transcript"), text}};
}

QJsonObject RealtimeEvents::callerTranscriptFailed(const QString& itemId)
{
    return QJsonObject{
        {QStringLiteral("type"),
         QStringLiteral("conversation.item.input_audio_transcription.failed")},
        {QStringLiteral("item_id"), itemId},
        {QStringLiteral("content_index"), 0},
        {QStringLiteral("error"),
         QJsonObject{
             {QStringLiteral("type"), QStringLiteral("transcription_error")},
             {QStringLiteral("code"), QStringLiteral("audio_unintelligible")},
             {QStringLiteral("message"), QStringLiteral("Audio could not be transcribed")}}}};
}

QJsonObject RealtimeEvents::speechStarted(int audioStartMs, const QString& itemId)
{
    QJsonObject started{
        {QStringLiteral("type"), QStringLiteral("input_audio_buffer.speech_started")},
        {QStringLiteral("audio_start_ms"), audioStartMs}};
    if (!itemId.isEmpty())
        started.insert(QStringLiteral("item_id"), itemId);
    return started;
}

QJsonObject RealtimeEvents::speechStopped(int audioEndMs, const QString& itemId)
{
    return QJsonObject{
        {QStringLiteral("type"), QStringLiteral("input_audio_buffer.speech_stopped")},
        {QStringLiteral("audio_end_ms"), audioEndMs},
        {QStringLiteral("item_id"), itemId}};
}

QJsonObject RealtimeEvents::audioCommitted(const QString& itemId)
{
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("input_audio_buffer.committed")},
                       {QStringLiteral("previous_item_id"), QJsonValue()},
                       {QStringLiteral("item_id"), itemId}};
}

QJsonObject RealtimeEvents::error(const QString& code, const QString& message)
{
    return QJsonObject{
        {QStringLiteral("type"), QStringLiteral("error")},
        {QStringLiteral("event_id"), QStringLiteral("event_error")},
        {QStringLiteral("error"),
         QJsonObject{{QStringLiteral("type"), QStringLiteral("invalid_request_error")},
                     {QStringLiteral("code"), code},
                     {QStringLiteral("message"), message},
                     {QStringLiteral("param"), QJsonValue::Null},
                     {QStringLiteral("event_id"), QJsonValue::Null}}}};
}

} // namespace vemira
