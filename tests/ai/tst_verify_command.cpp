#include "ScriptedRealtimeServer.h"
#include "records/APIKeyStore.h"
#include "records/DataFolder.h"
#include "records/Settings.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace vemira;
using vemira::testing::ScriptedRealtimeServer;

// `vemira verify` as the owner runs it: the real tool, its data folder, a loopback service.
class TestVerifyCommand : public QObject {
    Q_OBJECT

private:
    struct Run {
        int exitCode = -1;
        QString out;
        QString err;
    };

    // The tool runs while this process keeps serving the WebSocket, so no blocking waits.
    Run verify(const QTemporaryDir& home, const ScriptedRealtimeServer& server)
    {
        QProcess process;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("VEMIRA_DATA_DIR"), home.filePath(QStringLiteral("Brelian")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
        env.insert(QStringLiteral("VEMIRA_REALTIME_URL"), server.address());
        process.setProcessEnvironment(env);
        process.start(QStringLiteral(VEMIRA_CLI), {QStringLiteral("verify")});
        [&] { QVERIFY(process.waitForStarted()); }();
        [&] {
            QVERIFY(
                QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 20'000));
        }();
        return Run{process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
                   QString::fromUtf8(process.readAllStandardError())};
    }

private Q_SLOTS:
    void exitStatusTellsWhetherTheConnectionWorks()
    {
        QTemporaryDir home;
        QVERIFY(home.isValid());
        ScriptedRealtimeServer server;

        Run run = verify(home, server);
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains(QStringLiteral("Aucune clé n’est enregistrée. Saisissez votre "
                                                 "clé existante dans Connexions.")),
                 qPrintable(run.err));
        QCOMPARE(server.connectionCount(), 0);

        // The stored key and model are the ones used; the key as the application reads it,
        // without the spaces and newline of a hand-edited file.
        LocalKeyStore keys(
            DataFolder(home.filePath(QStringLiteral("Brelian"))).credentialsFolder());
        QVERIFY(!keys.save(QStringLiteral(" sk-stored\n")));
        {
            Settings settings(home.filePath(QStringLiteral("config/Brelian/Vemira.conf")));
            Settings::Group group = settings.group();
            group.model = QStringLiteral("gpt-realtime-2025-08-28");
            group.voice = QStringLiteral("coral");
            settings.saveGroup(group);
            settings.sync();
        }
        run = verify(home, server);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out.trimmed(), QStringLiteral("Connexion IA vérifiée"));
        QCOMPARE(server.connectionCount(), 1);
        QCOMPARE(server.handshakes().first().header("Authorization"),
                 QByteArray("Bearer sk-stored"));
        QCOMPARE(server.handshakes().first().target,
                 QByteArray("/v1/realtime?model=gpt-realtime-2025-08-28"));
        QCOMPARE(server.events()
                     .first()[QLatin1String("session")][QLatin1String("audio")]
                             [QLatin1String("output")][QLatin1String("voice")]
                     .toString(),
                 QStringLiteral("coral"));

        server.setUpgrade(ScriptedRealtimeServer::Upgrade::Refuse401);
        run = verify(home, server);
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains(QStringLiteral("Connexion à l’IA interrompue. Vérifiez la clé, "
                                                 "le modèle et votre accès Internet.")),
                 qPrintable(run.err));
        QVERIFY(!run.out.contains(QStringLiteral("vérifiée")));

        // A key the provider will not bill: the session opens, the test response fails.
        server.setUpgrade(ScriptedRealtimeServer::Upgrade::Accept);
        server.behaviour().probeFailure = QStringLiteral("insufficient_quota");
        run = verify(home, server);
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains(QStringLiteral("Crédit OpenAI épuisé")), qPrintable(run.err));
        QVERIFY(server.violations().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestVerifyCommand)
#include "tst_verify_command.moc"
