#include "ScriptedRealtimeServer.h"
#include "ai/AIConnectionCheck.h"

#include <QJsonObject>
#include <QTest>
#include <memory>

using namespace vemira;
using vemira::testing::ScriptedRealtimeServer;

namespace {

const QString noAnswer =
    QStringLiteral("L’IA ne répond pas. Vérifiez la clé, l’accès API et la connexion Internet.");
// The check runs with gpt-realtime, shut down on 20 January 2027: its refusal names the
// successor rather than blaming the key.
const QString retiredModel = QStringLiteral("gpt-realtime-2.1");

struct Outcomes {
    QList<std::optional<QString>> list;
    void attach(AIConnectionCheck& check)
    {
        check.onComplete = [this](const std::optional<QString>& failure) { list << failure; };
    }
    bool waitForOne()
    {
        return QTest::qWaitFor([&] { return !list.isEmpty(); }, 5000);
    }
};

} // namespace

class TestConnectionCheck : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<ScriptedRealtimeServer> server;

    void start(AIConnectionCheck& check)
    {
        check.start(QStringLiteral("sk-test"), QStringLiteral("gpt-realtime"),
                    QStringLiteral("marin"));
    }

private Q_SLOTS:
    void init()
    {
        server = std::make_unique<ScriptedRealtimeServer>();
        server->useAsEndpoint();
    }

    void cleanup()
    {
        QVERIFY2(server->violations().isEmpty(), qPrintable(server->violations().join(u'\n')));
        server.reset();
    }

    void confirmedSessionAndATinyResponseSucceed()
    {
        ManualClock clock;
        AIConnectionCheck check(clock);
        Outcomes outcomes;
        outcomes.attach(check);
        start(check);
        start(check); // already running: ignored
        QVERIFY(check.running());
        QVERIFY(outcomes.waitForOne());
        QCOMPARE(outcomes.list, (QList<std::optional<QString>>{std::nullopt}));
        QVERIFY(!check.running());

        QCOMPARE(server->connectionCount(), 1);
        QCOMPARE(server->events().size(), 2);
        QCOMPARE(server->events()
                     .first()[QLatin1String("session")][QLatin1String("instructions")]
                     .toString(),
                 QStringLiteral("Vérification de connexion. Ne génère aucune réponse."));
        // One text response of one token, kept out of any conversation: the server's checks
        // hold it to that, and no audio is ever sent.
        const QJsonObject probe = server->events().at(1);
        QCOMPARE(probe[QLatin1String("type")].toString(), QStringLiteral("response.create"));
        QCOMPARE(probe[QLatin1String("response")][QLatin1String("max_output_tokens")].toInt(), 1);
        QVERIFY(server->eventsOfType(QStringLiteral("input_audio_buffer.append")).isEmpty());
        // The probe hangs up properly, and its timer is gone with it.
        QVERIFY(server->waitForClientClose(1));
        QCOMPARE(server->clientCloseCodes(), QList<int>{1000});
        clock.advance(30);
        QCOMPARE(outcomes.list.size(), 1);
    }

    void anAccountThatCannotAnswerFailsTheCheck_data()
    {
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("message");
        QTest::newRow("no credit")
            << QStringLiteral("insufficient_quota") << QStringLiteral("Crédit");
        QTest::newRow("retired model") << QStringLiteral("model_not_found") << retiredModel;
        QTest::newRow("rate limit")
            << QStringLiteral("rate_limit_exceeded") << QStringLiteral("(rate_limit_exceeded)");
    }

    void anAccountThatCannotAnswerFailsTheCheck()
    {
        QFETCH(QString, code);
        QFETCH(QString, message);
        server->behaviour().probeFailure = code;
        ManualClock clock;
        AIConnectionCheck check(clock);
        Outcomes outcomes;
        outcomes.attach(check);
        start(check);
        QVERIFY(outcomes.waitForOne());
        QVERIFY(server->waitForEndedConnections(1)); // the probe hung up: nothing more comes
        QCOMPARE(outcomes.list.size(), 1);
        QVERIFY(outcomes.list.first().value_or(QString()).contains(message));

        // A session that opens but never answers the test response is not a success either.
        server->behaviour().answerProbes = false;
        outcomes.list.clear();
        start(check);
        QVERIFY(server->waitForEvents(4));
        clock.advance(15);
        QCOMPARE(outcomes.list, (QList<std::optional<QString>>{noAnswer}));
    }

    void silenceFailsAfterFifteenSeconds_data()
    {
        QTest::addColumn<bool>("answerUpgrade");
        QTest::newRow("upgrade accepted, no session.updated") << true;
        QTest::newRow("upgrade never answered") << false;
    }

    void silenceFailsAfterFifteenSeconds()
    {
        QFETCH(bool, answerUpgrade);
        server->behaviour().confirmSessions = false;
        if (!answerUpgrade)
            server->setUpgrade(ScriptedRealtimeServer::Upgrade::NeverAnswer);
        ManualClock clock;
        AIConnectionCheck check(clock);
        Outcomes outcomes;
        outcomes.attach(check);
        start(check);
        QVERIFY(answerUpgrade ? server->waitForEvents(1) : server->waitForConnections(1));
        clock.advance(14.9);
        QVERIFY(outcomes.list.isEmpty());
        clock.advance(0.1);
        QCOMPARE(outcomes.list, (QList<std::optional<QString>>{noAnswer}));
        QVERIFY(!check.running());

        // A confirmation that comes too late changes nothing.
        server->sendEvent(ScriptedRealtimeServer::sessionUpdated());
        QVERIFY(server->waitForEndedConnections(1));
        clock.advance(60);
        QCOMPARE(outcomes.list.size(), 1);
    }

    void rejectionsCarryTheClientsMessage()
    {
        ManualClock clock;
        AIConnectionCheck check(clock);
        Outcomes outcomes;
        outcomes.attach(check);

        // An error event followed by a close: only the first report counts.
        server->behaviour().confirmSessions = false;
        server->onEvent = [&](const QJsonObject&) {
            server->sendEvent(ScriptedRealtimeServer::error(QStringLiteral("invalid_api_key")));
            server->closeSession(QWebSocketProtocol::CloseCode(3000));
        };
        start(check);
        QVERIFY(outcomes.waitForOne());
        QVERIFY(server->waitForEndedConnections(1));
        clock.advance(20);
        QTest::qWait(50);
        QCOMPARE(outcomes.list, (QList<std::optional<QString>>{QStringLiteral(
                                    "L’IA signale une erreur (invalid_api_key). Vérifiez votre "
                                    "configuration.")}));

        // The same refusal for the model instead: the key is not what is wrong.
        outcomes.list.clear();
        server->onEvent = [&](const QJsonObject&) {
            server->sendEvent(ScriptedRealtimeServer::error(QStringLiteral("model_not_found")));
        };
        start(check);
        QVERIFY(outcomes.waitForOne());
        QVERIFY(outcomes.list.first().value_or(QString()).contains(retiredModel));
        server->onEvent = nullptr;
    }

    void aNewCheckCanStartFromTheCompletion()
    {
        ManualClock clock;
        AIConnectionCheck check(clock);
        int completions = 0;
        check.onComplete = [&](const std::optional<QString>& failure) {
            QVERIFY(!failure);
            if (++completions == 1)
                start(check);
        };
        start(check);
        QVERIFY(QTest::qWaitFor([&] { return completions == 2; }, 5000));
        QCOMPARE(server->connectionCount(), 2);
    }
};

QTEST_GUILESS_MAIN(TestConnectionCheck)
#include "tst_connection_check.moc"
