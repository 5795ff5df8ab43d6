#include "ScriptedRealtimeServer.h"
#include "ai/MessageRequest.h"
#include "ai/RealtimeClient.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>
#include <memory>

using namespace vemira;
using vemira::testing::ScriptedRealtimeServer;

namespace {

const QString answer = QStringLiteral(
    R"({"identity":"Paul Lefèvre","address":"8 avenue Jean Jaurès, 3e étage","problem":)"
    R"("Plus d’eau chaude","since":"hier soir","urgency":"Rapide","callback":"06 71 22 48 90",)"
    R"("summary":"Plus d’eau chaude depuis hier soir au 8 avenue Jean Jaurès."})");

} // namespace

// The request for the call's message against a real WebSocket session on loopback: answered,
// never answered, answered with rubbish; the caller always gets exactly one outcome and the
// request's cost reaches the usage estimate.
class TestMessageRequest : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<ScriptedRealtimeServer> server;
    ManualClock clock;
    std::unique_ptr<RealtimeClient> client;
    QList<ConversationUsage> usages;

    void openSession()
    {
        server = std::make_unique<ScriptedRealtimeServer>();
        server->useAsEndpoint();
        client = std::make_unique<RealtimeClient>(clock);
        usages.clear();
        client->onUsage = [this](const ConversationUsage& usage) { usages << usage; };
        client->connect(QStringLiteral("sk-test"), QStringLiteral("gpt-realtime"),
                        QStringLiteral("marin"), QStringLiteral("Consignes"));
        QTRY_VERIFY(client->isReady());
    }

    // Runs one request to its end, then past its timeout: the outcomes seen (more than one
    // would be a bug; the answer's response.done is the last event the server sends for it).
    QList<MessageRequest::Outcome> ask(MessageRequest& request)
    {
        QList<MessageRequest::Outcome> outcomes;
        request.start([&outcomes](const auto& outcome) { outcomes << outcome; });
        if (!QTest::qWaitFor([&] { return !outcomes.isEmpty(); }))
            return outcomes;
        clock.advance(10);
        QCoreApplication::processEvents();
        return outcomes;
    }

private Q_SLOTS:
    void answeredRequestGivesTheMessageAndItsCost()
    {
        openSession();
        server->behaviour().messageArguments = answer;
        MessageRequest request(*client, clock);
        const auto outcomes = ask(request);
        QCOMPARE(outcomes.size(), 1);
        QVERIFY2(server->violations().isEmpty(), qPrintable(server->violations().join(u'\n')));
        const auto& message = outcomes.first().message;
        QVERIFY(message);
        QCOMPARE(message->identity, QStringLiteral("Paul Lefèvre"));
        QCOMPARE(message->callback, QStringLiteral("06 71 22 48 90"));
        QCOMPARE(message->urgency, QStringLiteral("Rapide"));
        QVERIFY(outcomes.first().logLine.isEmpty());
        QVERIFY(!request.isRunning());
        // The answer's tokens are in the estimate, nothing left reserved.
        QCOMPARE(usages.last().inputTokens, 900);
        QCOMPARE(usages.last().outputTokens, 60);
        QCOMPARE(usages.last().pendingResponses, 0);
    }

    void modelThatNeverAnswersEndsAtTheTimeout()
    {
        openSession();
        MessageRequest request(*client, clock);
        QList<MessageRequest::Outcome> outcomes;
        request.start([&outcomes](const auto& outcome) { outcomes << outcome; });
        QVERIFY(server->waitForEvents(2));
        clock.advance(4.9);
        QCoreApplication::processEvents();
        QVERIFY(outcomes.isEmpty()); // still within the 5 s bound
        clock.advance(0.2);
        QCOMPARE(outcomes.size(), 1);
        QVERIFY(!outcomes.first().message);
        QCOMPARE(
            outcomes.first().logLine,
            QStringLiteral("Message de l’appel non reçu à temps : appel enregistré sans message."));
        // The unanswered request stays reserved in the estimate: never undercounted.
        server->sendEvent(ScriptedRealtimeServer::responseCreated(QStringLiteral("late")));
        QTRY_COMPARE(usages.last().pendingResponses, 1);
    }

    void malformedAnswersLeaveNoMessage_data()
    {
        QTest::addColumn<QString>("arguments");
        QTest::addColumn<bool>("hasMessage");
        QTest::newRow("broken JSON") << QStringLiteral("{\"identity\":") << false;
        QTest::newRow("a 1 MB field")
            << QStringLiteral(R"({"problem":"%1","callback":"0671224890"})")
                   .arg(QString(1024 * 1024, u'é'))
            << true;
    }

    void malformedAnswersLeaveNoMessage()
    {
        QFETCH(QString, arguments);
        QFETCH(bool, hasMessage);
        openSession();
        server->behaviour().messageArguments = arguments;
        MessageRequest request(*client, clock);
        const auto outcomes = ask(request);
        QCOMPARE(outcomes.size(), 1);
        QCOMPARE(bool(outcomes.first().message), hasMessage);
        if (!hasMessage) {
            QCOMPARE(outcomes.first().logLine, MessageRequest::unreadableLine());
            return;
        }
        // A megabyte crosses the session and comes out bounded.
        QCOMPARE(outcomes.first().message->problem.size(), 1000);
    }

    void closedSessionOrCancelledRequest()
    {
        openSession();
        client->close();
        MessageRequest request(*client, clock);
        QList<MessageRequest::Outcome> outcomes;
        request.start([&outcomes](const auto& outcome) { outcomes << outcome; });
        QVERIFY(outcomes.isEmpty()); // never from inside start()
        QTRY_COMPARE(outcomes.size(), 1);
        QCOMPARE(outcomes.first().logLine, MessageRequest::notAskedLine());

        // Cancelled, or destroyed while waiting: no callback, even when the answer comes.
        openSession();
        server->behaviour().messageArguments = answer;
        int calls = 0;
        {
            MessageRequest cancelled(*client, clock);
            cancelled.start([&calls](const auto&) { ++calls; });
            cancelled.cancel();
            auto destroyed = std::make_unique<MessageRequest>(*client, clock);
            destroyed->start([&calls](const auto&) { ++calls; });
            destroyed.reset();
        }
        // Both answers came back (60 output tokens each), then the timeouts' moment passes.
        QVERIFY(QTest::qWaitFor([&] { return usages.last().outputTokens == 2 * 60; }));
        clock.advance(10);
        QCOMPARE(calls, 0);
    }

    void askedOnlyWhenTheCallerSpoke()
    {
        QVERIFY(!MessageRequest::worthAsking({}));
        QVERIFY(!MessageRequest::worthAsking(
            {TranscriptLine::create(Speaker::assistant(), QStringLiteral("Bonjour")),
             TranscriptLine::create(Speaker::caller(), QStringLiteral("  "))}));
        QVERIFY(MessageRequest::worthAsking(
            {TranscriptLine::create(Speaker::caller(), QStringLiteral("Allô ?"))}));
    }

    void cleanup()
    {
        client.reset();
        server.reset();
    }
};

QTEST_GUILESS_MAIN(TestMessageRequest)
#include "tst_message_request.moc"
