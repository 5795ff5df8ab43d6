// Arming, the AI check, the test conversations and the session log of the application
// model, on the same rig as the call scenarios.

#include "AppRig.h"
#include "core/PlatformWording.h"
#include "records/Settings.h"

#include <QTest>
#include <algorithm>

using namespace vemira;
using namespace vemira::testing;

namespace {

const QString kNoKey =
    QStringLiteral("Aucune clé n’est enregistrée. Saisissez votre clé existante dans Connexions.");
const QString kValidNumber = QStringLiteral("Saisissez un numéro de téléphone valide.");
const QString kCompleteNumber =
    QStringLiteral("Saisissez un numéro complet, avec l’indicatif si nécessaire.");

} // namespace

class AppModelTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // The texts quoted here are the macOS ones, word for word: selecting them on every
    // platform keeps these cases a guard against their drift.
    void initTestCase() { PlatformWording::select(WordingPlatform::MacOS); }
    void init() { QLocale::setDefault(QLocale(QLocale::French, QLocale::France)); }

    void sessionLogKeepsFiftyNewestFirst()
    {
        AppRig rig;
        const QStringList before = rig.model->log();
        for (int i = 1; i <= 60; ++i) {
            rig.model->event(QStringLiteral("ligne %1").arg(i));
            rig.clock.advance(60);
        }
        const QStringList log = rig.model->log();
        QCOMPARE(log.size(), 50);
        // 60 lines a minute apart from 09:30: the newest was written at 10:29.
        QCOMPARE(log.first(), QStringLiteral("10:29 · ligne 60"));
        QCOMPARE(log.last(), QStringLiteral("09:40 · ligne 11"));
        QVERIFY(!log.contains(before.value(0, QStringLiteral("∅"))));
    }

    void aRetiringModelIsFlaggedThenReplacedAtStart_data()
    {
        QTest::addColumn<QDate>("today");
        QTest::addColumn<QString>("issue"); // in the readiness list, and so in the log
        QTest::addColumn<QString>("modelAtStart");
        QTest::addColumn<QString>("logLine");
        // gpt-realtime is shut down on 20 January 2027; gpt-realtime-2.1 replaces it.
        QTest::newRow("31 days before")
            << QDate(2026, 12, 20) << QString() << QStringLiteral("gpt-realtime") << QString();
        QTest::newRow("30 days before")
            << QDate(2026, 12, 21)
            << QStringLiteral("Passer au modèle gpt-realtime-2.1 (gpt-realtime s’arrête le 20 "
                              "janvier 2027)")
            << QStringLiteral("gpt-realtime")
            << QStringLiteral("Le modèle gpt-realtime sera arrêté par OpenAI le 20 janvier 2027 "
                              ": passez à gpt-realtime-2.1 (page Agent).");
        QTest::newRow("the day") << QDate(2027, 1, 20) << QString()
                                 << QStringLiteral("gpt-realtime-2.1")
                                 << QStringLiteral("Le modèle gpt-realtime est arrêté par OpenAI "
                                                   "depuis le 20 janvier 2027 : remplacé par "
                                                   "gpt-realtime-2.1.");
    }

    void aRetiringModelIsFlaggedThenReplacedAtStart()
    {
        QFETCH(QDate, today);
        QFETCH(QString, issue);
        QFETCH(QString, modelAtStart);
        QFETCH(QString, logLine);
        ModelRig rig;
        Settings(rig.settingsFile())
            .saveGroup({QString(), QString(), QStringLiteral("marin"),
                        QStringLiteral("gpt-realtime"), QStringLiteral("SCI des Brumaires"),
                        QString()});
        rig.clock.advance(double(rig.clock.now().date().daysTo(today)) * 86400);
        rig.model = std::make_unique<AppModel>(rig.fakeDependencies());

        QCOMPARE(rig.model->model(), modelAtStart);
        QCOMPARE(Settings(rig.settingsFile()).group().model, modelAtStart);
        QCOMPARE(rig.model->readinessIssues().contains(issue), !issue.isEmpty());
        const bool logged =
            std::any_of(rig.model->log().cbegin(), rig.model->log().cend(),
                        [&](const QString& line) { return line.endsWith(logLine); });
        QCOMPARE(logged, !logLine.isEmpty());

        // One click moves to the replacement, saved, and the readiness line goes.
        rig.model->adoptSuccessorModel();
        QCOMPARE(Settings(rig.settingsFile()).group().model, QStringLiteral("gpt-realtime-2.1"));
        QVERIFY(!rig.model->readinessIssues().join(u'\n').contains(QStringLiteral("modèle")));
    }

    void theAccessibilityPromptIsAskedOnceARun()
    {
        AppRig rig;
        rig.accessibility->trusted = false;
        QVERIFY(rig.model->requestAccessibility());
        QVERIFY(!rig.model->requestAccessibility());
        QCOMPARE(rig.accessibility->trustRequests, 1);
        // Granted meanwhile in the settings: the next request reads it without a prompt.
        rig.accessibility->trusted = true;
        QVERIFY(!rig.model->requestAccessibility());
        QVERIFY(rig.model->accessibility());
        QCOMPARE(rig.accessibility->trustRequests, 1);
    }

    void armingPassesValidationThenTheAICheck()
    {
        AppRig rig;
        // A failed validation is shown and nothing is contacted.
        rig.model->setRoutingConfirmed(false);
        rig.model->toggleArmed();
        QCOMPARE(rig.model->error(),
                 QStringLiteral("Cliquez sur Configurer et tester le son dans Connexions avant "
                                "d’activer le standard."));
        QVERIFY(!rig.model->checkingAI());
        QCOMPARE(rig.server.connectionCount(), 0);
        QVERIFY(
            rig.model->readinessIssues().contains(QStringLiteral("Configurer et tester le son")));

        // A server that accepts the socket and never confirms: 15 s, then the check fails.
        rig.model->setRoutingConfirmed(true);
        rig.server.behaviour().confirmSessions = false;
        rig.model->toggleArmed();
        QVERIFY(rig.model->checkingAI());
        QCOMPARE(rig.model->aiStatus(), QStringLiteral("Vérification de la connexion…"));
        QVERIFY(rig.server.waitForConnections(1));
        rig.model->verifyAI(true); // a second check while one runs does nothing (see below)
        rig.clock.advance(14.9);
        QVERIFY(rig.model->checkingAI());
        rig.clock.advance(0.1);
        const QString noAnswer = QStringLiteral(
            "L’IA ne répond pas. Vérifiez la clé, l’accès API et la connexion Internet.");
        QCOMPARE(rig.model->aiStatus(), noAnswer);
        QCOMPARE(rig.model->error(), noAnswer);
        QVERIFY(!rig.model->aiVerified());
        QVERIFY(!rig.model->armed());
        QVERIFY(!rig.model->hasConnectionProbe());
        QCOMPARE(rig.model->readinessIssues(),
                 QStringList{QStringLiteral("Vérifier la connexion IA")});

        // Confirmed: verified and armed; a later check without arming leaves standby alone.
        rig.server.behaviour().confirmSessions = true;
        QVERIFY(rig.arm());
        QCOMPARE(rig.server.connectionCount(), 2); // the ignored check opened none
        QVERIFY(rig.model->aiVerified());
        QCOMPARE(rig.model->aiStatus(), QStringLiteral("Connexion IA vérifiée"));
        QCOMPARE(rig.model->readinessIssues(), QStringList());
        QCOMPARE(rig.model->setupPercent(), 75); // no validated test call yet
        rig.model->toggleArmed();
        QVERIFY(!rig.model->armed());
        QCOMPARE(rig.model->status(), QStringLiteral("Standard en pause"));
        rig.model->verifyAI(false);
        QVERIFY(waitFor([&] { return !rig.model->checkingAI(); }));
        QVERIFY(rig.model->aiVerified());
        QVERIFY(!rig.model->armed());
    }

    void keyHandlingAndAMissingKey()
    {
        AppRig rig;
        rig.model->deleteKey();
        QVERIFY(!rig.model->keyPresent());
        rig.model->verifyAI(true);
        QCOMPARE(rig.model->error(), kNoKey);
        QVERIFY(!rig.model->checkingAI());

        rig.model->saveKey(QStringLiteral("  sk-nouvelle \n"));
        QVERIFY(rig.model->keyPresent());
        QVERIFY(!rig.model->aiVerified());
        QCOMPARE(rig.model->aiStatus(), QStringLiteral("Clé enregistrée · connexion à vérifier"));
        QVERIFY(rig.model->log().first().endsWith(QStringLiteral(" · Clé enregistrée sur ce Mac")));
        QCOMPARE(*LocalKeyStore(DataFolder(rig.dir.path()).credentialsFolder()).read().value(),
                 QStringLiteral("sk-nouvelle"));

        // During a conversation the key stays where it is.
        QVERIFY(rig.armAndTakeCall());
        rig.model->deleteKey();
        QVERIFY(rig.model->keyPresent());
    }

    void theCheckProvesTheKeyModelAndVoiceInUse()
    {
        AppRig rig;
        const LocalKeyStore keys(DataFolder(rig.dir.path()).credentialsFolder());
        // A key pasted into the file by hand, with its newline: read as the tool reads it.
        keys.save(QStringLiteral("  sk-colle\n"));
        rig.model->verifyAI(false);
        QVERIFY(waitFor([&] { return !rig.model->checkingAI(); }));
        QVERIFY(rig.model->aiVerified());
        QCOMPARE(rig.server.handshakes().last().header("Authorization"),
                 QByteArray("Bearer sk-colle"));

        // Changing the model, the voice or the key undoes the proof, and stops a check under
        // way, which then never completes.
        const auto undoes = [&](const std::function<void()>& change) {
            rig.server.behaviour().confirmSessions = true;
            rig.model->verifyAI(false);
            if (!waitFor([&] { return rig.model->aiVerified(); }))
                return false;
            change();
            if (rig.model->aiVerified())
                return false;
            rig.server.behaviour().confirmSessions = false;
            const int connections = rig.server.connectionCount();
            rig.model->verifyAI(false);
            if (!rig.server.waitForConnections(connections + 1) || !rig.model->checkingAI())
                return false;
            change();
            rig.advance(15);
            return !rig.model->checkingAI() && !rig.model->aiVerified() &&
                   rig.model->error().isEmpty() && !rig.model->hasConnectionProbe();
        };
        int round = 0;
        QVERIFY(
            undoes([&] { rig.model->setModel(QStringLiteral("gpt-realtime-%1").arg(++round)); }));
        QVERIFY(undoes([&] { rig.model->setVoice(QStringLiteral("voix-%1").arg(++round)); }));
        QVERIFY(undoes([&] { rig.model->saveKey(QStringLiteral("sk-%1").arg(++round)); }));
        QVERIFY(undoes([&] {
            rig.model->deleteKey();
            keys.save(QStringLiteral("sk-%1").arg(++round));
        }));

        // The key file replaced behind a check (by the command-line tool): nothing is armed.
        rig.server.behaviour().confirmSessions = false;
        const auto configurations = [&] {
            return rig.sent(QStringLiteral("session.update")).size();
        };
        const qsizetype before = configurations();
        rig.model->verifyAI(true);
        QVERIFY(waitFor([&] { return configurations() > before; }));
        keys.save(QStringLiteral("sk-autre"));
        rig.server.sendEvent(ScriptedRealtimeServer::sessionUpdated());
        QVERIFY(waitFor([&] { return !rig.model->checkingAI(); }));
        QVERIFY(!rig.model->armed());
        QVERIFY(!rig.model->aiVerified());
        QCOMPARE(rig.model->error(),
                 QStringLiteral("La clé a changé pendant la vérification. Vérifiez de nouveau la "
                                "connexion avant d’activer le standard."));
    }

    void macConversationRunsOnTheBuiltInDevicesUntilTheLimit()
    {
        AppRig rig;
        // Not verified yet: the Mac assistant opens instead.
        rig.model->startTest();
        QVERIFY(rig.model->macAssistantOpen());
        QVERIFY(!rig.model->busy());

        rig.model->setMacAudioVerified(true);
        QCOMPARE(rig.model->macTestRoute(),
                 QStringLiteral("Micro : Micro du casque · Sortie : Casque"));
        rig.model->startTest();
        QVERIFY(rig.model->busy());
        QVERIFY(!rig.model->phoneSession());
        QCOMPARE(rig.system->defaults.value(AudioSelector::defaultInput), kBuiltInMic);
        QCOMPARE(rig.system->defaults.value(AudioSelector::defaultOutput), kBuiltInSpeakers);
        QCOMPARE(rig.model->macTestRoute(),
                 QStringLiteral("Micro : Micro intégré · Sortie : Haut-parleurs intégrés"));
        QCOMPARE(rig.model->current()->kind, QStringLiteral("Essai"));
        QCOMPARE(rig.model->current()->caller, QStringLiteral("Conversation sur le Mac"));
        QVERIFY(rig.connected());
        QCOMPARE(rig.model->detail(),
                 QStringLiteral("Essai audio démarré · Enregistrement audio actif"));
        QVERIFY(rig.model->log().first().endsWith(QStringLiteral(" · Essai audio démarré")));

        // No phone here: no active-call confirmation ends it, the 20-minute limit does.
        rig.tick(1201);
        QCOMPARE(rig.model->status(), QStringLiteral("Limite de 20 minutes atteinte"));
        QCOMPARE(rig.system->defaults.value(AudioSelector::defaultInput), kHeadsetMic);
        QCOMPARE(rig.system->defaults.value(AudioSelector::defaultOutput), kHeadsetOut);
        QCOMPARE(rig.model->records().first().kind, QStringLiteral("Essai"));
    }

    void macConversationThatCannotBeginLeavesTheDefaults()
    {
        AppRig rig;
        rig.model->setMacAudioVerified(true);
        rig.model->deleteKey();
        rig.model->startTest();
        QVERIFY(!rig.model->busy());
        QCOMPARE(rig.model->error(), kNoKey);
        QCOMPARE(rig.system->defaults.value(AudioSelector::defaultInput), kHeadsetMic);
        QCOMPARE(rig.system->defaults.value(AudioSelector::defaultOutput), kHeadsetOut);

        // A failure of the AI says nothing about the Mac's sound path: its proof stays.
        rig.model->saveKey(QStringLiteral("sk-test"));
        rig.model->setRecordingEnabled(false);
        rig.model->startTest();
        QVERIFY(rig.connected());
        QCOMPARE(rig.model->detail(), QStringLiteral("Essai audio démarré"));
        rig.server.sendEvent(ScriptedRealtimeServer::error(QStringLiteral("session_expired")));
        QVERIFY(rig.ended());
        QCOMPARE(rig.model->error(),
                 QStringLiteral("L’IA signale une erreur (session_expired). Vérifiez votre "
                                "configuration."));
        QVERIFY(rig.model->macAudioVerified());
        QVERIFY(rig.model->routingConfirmed());
        QVERIFY(!rig.model->records().first().recordingFile);
        QCOMPARE(rig.system->defaults.value(AudioSelector::defaultInput), kHeadsetMic);
    }

    void testsNeverStartWhileArmed()
    {
        AppRig rig;
        QVERIFY(rig.arm());
        rig.model->setMacAudioVerified(true);
        rig.model->startTest();
        QVERIFY(!rig.model->busy());
        rig.model->setOutgoingNumber(QStringLiteral("06 12 34 56 78"));
        rig.model->dialTestNumber();
        QVERIFY(rig.workspace->opened.isEmpty());
        QVERIFY(rig.model->outgoingStatus().isEmpty());
    }

    void dialledNumbersAreCheckedBeforeTheSystemCalls()
    {
        AppRig rig;
        auto dial = [&](const QString& number) {
            rig.model->setOutgoingStatus(QString());
            rig.model->setOutgoingNumber(number);
            rig.model->dialTestNumber();
            return rig.model->outgoingStatus();
        };
        const QString confirm = QStringLiteral(
            "Confirmez l’appel dans Téléphone si macOS le demande. Quand la personne décroche, "
            "cliquez sur Brancher l’IA.");

        QCOMPARE(dial(QStringLiteral(" +33 (0)6 12-34.56.78\n")), confirm);
        QCOMPARE(rig.workspace->opened.last(), QUrl(QStringLiteral("tel:+330612345678")));
        QCOMPARE(dial(QStringLiteral("06 12 34 56")), confirm); // 8 digits
        QCOMPARE(rig.workspace->opened.last(), QUrl(QStringLiteral("tel:06123456")));
        QCOMPARE(dial(QStringLiteral("0612 345")), kCompleteNumber);
        QCOMPARE(dial(QStringLiteral("0612345678901234")), kCompleteNumber); // 16 digits
        QCOMPARE(dial(QStringLiteral("33+612345678")), kCompleteNumber);
        QCOMPARE(dial(QStringLiteral("++33612345678")), kCompleteNumber);
        QCOMPARE(dial(QStringLiteral("06 12 34 56 7a")), kValidNumber);
        QCOMPARE(dial(QStringLiteral("06/12/34/56/78")), kValidNumber);
        QCOMPARE(dial(QStringLiteral("   ")), kValidNumber);
        QCOMPARE(rig.workspace->opened.size(), 2);

        rig.workspace->acceptUrls = false;
        QCOMPARE(dial(QStringLiteral("0612345678")),
                 QStringLiteral("Impossible d’ouvrir le numéro. Composez-le dans Téléphone."));

        // The phone path must be usable before anything is dialled.
        rig.model->setRoutingConfirmed(false);
        rig.model->setError(QString());
        QCOMPARE(dial(QStringLiteral("0612345678")), QString());
        QVERIFY(rig.model->error().startsWith(QStringLiteral("Cliquez sur Configurer")));
        QCOMPARE(rig.workspace->opened.size(), 3);
    }

    void takingTheCurrentCallNeedsAnActiveCall()
    {
        AppRig rig;
        rig.model->takeCurrentCall();
        QCOMPARE(rig.model->outgoingStatus(),
                 QStringLiteral("Aucun appel actif détecté. Lancez ou décrochez un appel dans "
                                "Téléphone."));
        QVERIFY(!rig.model->busy());

        rig.showActiveCall();
        rig.model->takeCurrentCall();
        QVERIFY(rig.model->busy());
        QVERIFY(rig.model->phoneSession());
        QCOMPARE(rig.model->current()->caller,
                 QStringLiteral("Appel en cours · identité à confirmer"));
        QVERIFY(rig.connected());
        QCOMPARE(rig.model->detail(),
                 QStringLiteral("Décrochage demandé · Enregistrement audio actif"));
        // The phone-session checks apply: the call ends five ticks after it disappears.
        rig.tick();
        QVERIFY(rig.model->sawActiveCall());
        rig.phoneIdle();
        rig.tick(5);
        QVERIFY(!rig.model->busy());
        QCOMPARE(rig.model->records().first().kind, QStringLiteral("Appel"));

        rig.accessibility->knownApplications.clear();
        rig.model->openPhone();
        QVERIFY(rig.accessibility->opened.isEmpty());
        rig.accessibility->knownApplications = {kPhoneApp};
        rig.model->openPhone();
        QCOMPARE(rig.accessibility->opened, QStringList{kPhoneApp});
    }
};

QTEST_GUILESS_MAIN(AppModelTest)
#include "tst_app_model.moc"
