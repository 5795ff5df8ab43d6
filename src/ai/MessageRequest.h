#pragma once

#include "core/Clock.h"
#include "records/CallMessage.h"
#include "records/CallRecord.h"

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>
#include <optional>

namespace vemira {

class RealtimeClient;

// Asks the model, in the session of the call that just ended, for the message the caller left,
// as structured data, and waits a bounded time for it.
//
// The request is a response forced to call one function tool whose parameters are the message's
// fields. The realtime interface has no JSON-schema response format (its response.create takes
// tools and a tool choice, no text format), so a function call is the only answer the provider
// holds to a schema; it arrives whole in "response.done", with the response's usage, so one
// event both ends the wait and counts the cost. The response stays out of the conversation
// ("conversation": "none") but reads all of it, and produces no audio.
//
// Main thread only. The callback runs once, never from inside start(), and not at all after
// cancel() or destruction.
class MessageRequest final : public QObject {
    Q_OBJECT

public:
    static constexpr double timeoutSeconds = 5;
    // Upper bound on the answer's length, so the request's cost stays small.
    static constexpr int maxOutputTokens = 600;

    struct Outcome {
        std::optional<CallMessage> message;
        QString logLine; // for the session log when there is no message; empty otherwise
    };

    static QString toolName(); // "record_message"
    // The response.create event of the request.
    static QJsonObject requestEvent();
    // Whether a response (the "response" object of a response.done) answers the request.
    static bool isAnswer(const QJsonObject& response);
    // The message a finished answer carries, or why there is none.
    static Outcome read(const QJsonObject& response);
    // A conversation is worth a message once the caller said something.
    static bool worthAsking(const QList<TranscriptLine>& transcript);

    // Log lines.
    static QString timeoutLine();
    static QString unreadableLine();
    static QString notAskedLine();

    MessageRequest(RealtimeClient& client, Clock& clock, QObject* parent = nullptr);
    ~MessageRequest() override;

    void start(std::function<void(const Outcome& outcome)> done);
    void cancel();
    bool isRunning() const { return static_cast<bool>(m_done); }

private:
    void finish(const Outcome& outcome);

    QPointer<RealtimeClient> m_client;
    Clock& m_clock;
    std::function<void(const Outcome&)> m_done;
    TaskHandlePtr m_timeout;
    quint64 m_round = 0; // renewed by start/cancel so an earlier round's tasks are inert
};

} // namespace vemira
