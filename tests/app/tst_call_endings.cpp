// How calls end and what survives a failure: hang-up, missed calls, server errors, the time
// limit's goodbye, the manager's intervention, the arming check, sleep and wake. The model on
// the fake machine against the real realtime client and a scripted server on loopback; time on
// a manual clock, compared with the rules' own figures.

#include "AppRig.h"
#include "cli/SessionLogPrinter.h"
#include "records/Settings.h"

#include <QTest>

using namespace vemira;
using namespace vemira::testing;

namespace {

const QString kNeedsCheck = QStringLiteral("Une vérification est nécessaire");

QString lineText(const QString& logLine)
{
    return logLine.section(QStringLiteral(" · "), 1);
}

bool logHas(const AppModel& model, const QString& text)
{
    const QStringList log = model.log();
    return std::any_of(log.begin(), log.end(),
                       [&](const QString& line) { return lineText(line) == text; });
}

QList<QJsonObject> clientEvents(ScriptedRealtimeServer& server, const QString& type)
{
    return server.eventsOfType(type);
}

} // namespace

class CallEndingsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { QLocale::setDefault(QLocale(QLocale::French, QLocale::France)); }

    void endingACallHangsUpUnlessTheCallerLeft()
    {
        // "Terminer la conversation" (and Ctrl-C in the headless standby) end through finish.
        {
            AppRig rig;
            QVERIFY(rig.arm());
            QVERIFY(rig.takeCall());
            // A press gets a second, not the 0.03 s a label read gets.
            QCOMPARE(rig.pressTimeout, 1.0);
            rig.model->finish();
            QCOMPARE(rig.hangUps, 1);
            QVERIFY(logHas(*rig.model, QStringLiteral("Appel raccroché")));
            QVERIFY(!rig.model->busy());
            QVERIFY(rig.model->armed());
        }
        // The caller hung up: five ticks without the call, nothing is pressed.
        {
            AppRig rig;
            QVERIFY(rig.arm());
            QVERIFY(rig.takeCall());
            rig.tick(); // the call is seen in the phone
            rig.phoneIdle();
            rig.tick(5);
            QVERIFY(!rig.model->busy());
            QCOMPARE(rig.hangUps, 0);
        }
        // Sleep and a failure during the call hang up too.
        {
            AppRig rig;
            QVERIFY(rig.arm());
            QVERIFY(rig.takeCall());
            rig.sleep->sleepNow();
            QCOMPARE(rig.hangUps, 1);
        }
        {
            AppRig rig;
            QVERIFY(rig.arm());
            QVERIFY(rig.takeCall());
            rig.server.sendEvent(ScriptedRealtimeServer::error(QStringLiteral("session_expired")));
            QVERIFY(waitFor([&] { return !rig.model->busy(); }));
            QCOMPARE(rig.hangUps, 1);
            QCOMPARE(rig.model->status(), kNeedsCheck);
        }
    }

    void anErrorEventKeepsAUsableSession()
    {
        AppRig rig;
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
        rig.showActiveCall();
        const QString busyResponse = QStringLiteral(
            "L’IA signale une erreur (conversation_already_has_active_response). Vérifiez votre "
            "configuration.");
        rig.server.sendEvent(ScriptedRealtimeServer::error(
            QStringLiteral("conversation_already_has_active_response")));
        rig.server.sendEvent(
            ScriptedRealtimeServer::error(QStringLiteral("response_cancel_not_active")));
        QVERIFY(waitFor([&] { return logHas(*rig.model, busyResponse); }));
        QVERIFY(rig.callerSays(QStringLiteral("Vous êtes toujours là ?")));
        rig.tick(2);
        QVERIFY(rig.model->busy());
        QVERIFY(rig.model->connected());
        QVERIFY(rig.model->armed());
        QCOMPARE(rig.model->error(), QString());

        // An error that leaves no session still ends the call, after harmless ones too: hung
        // up and saved at once, without asking the dead session for the message (no clock
        // tick: a request would wait for its timeout).
        rig.server.sendEvent(ScriptedRealtimeServer::error(QStringLiteral("session_expired")));
        QVERIFY(waitFor([&] { return !rig.model->busy(); }));
        QCOMPARE(rig.hangUps, 1);
        for (const QJsonObject& request :
             rig.server.eventsOfType(QStringLiteral("response.create")))
            QVERIFY(!request.value(QLatin1String("response"))
                         .toObject()
                         .contains(QLatin1String("tool_choice")));
    }

    void callerLeavingWhileTheAIConnectsIsAMissedCall()
    {
        // Seen by the ticks while the AI is still connecting; a single reading without the
        // offer is not enough.
        {
            AppRig rig;
            QVERIFY(rig.arm());
            QVERIFY(rig.takeCallWithoutReadyAI());
            rig.phoneIdle();
            rig.tick();
            rig.ring();
            rig.tick();
            QVERIFY(rig.model->busy());
            rig.phoneIdle();
            QVERIFY(waitFor([&] {
                rig.tick();
                return !rig.model->busy();
            }));
            QVERIFY(rig.model->armed());
            QVERIFY(rig.model->routingConfirmed());
            QCOMPARE(rig.model->error(), QString());
            QCOMPARE(rig.model->records().size(), 1);
            QCOMPARE(rig.model->records().first().kind, QStringLiteral("Appel"));
            QCOMPARE(rig.model->records().first().caller, kCallerNumber);
            QCOMPARE(lineText(rig.model->log().first()), QStringLiteral("Appel manqué : ") +
                                                             kCallerNumber +
                                                             QStringLiteral(" a raccroché"));
            QCOMPARE(rig.answerButton->pressCount, 0);
            QCOMPARE(rig.hangUps, 0);
            // Still on duty: the next call after the 8 s cool-down is taken.
            rig.tick(8);
            rig.server.behaviour().confirmSessions = true;
            QVERIFY(rig.takeCall());
        }
        // Or found by the answer itself when the AI became ready in between.
        {
            AppRig rig;
            QVERIFY(rig.arm());
            QVERIFY(rig.takeCallWithoutReadyAI());
            rig.answerButton->title = QString(); // the offer's button is gone with it
            rig.phoneIdle();
            rig.server.sendEvent(ScriptedRealtimeServer::sessionUpdated());
            QVERIFY(waitFor([&] { return !rig.model->busy(); }));
            QVERIFY(rig.model->armed());
            QVERIFY(lineText(rig.model->log().first()).startsWith(QStringLiteral("Appel manqué")));
            QCOMPARE(rig.historyOnDisk().value(0).kind, QStringLiteral("Appel"));
        }
    }

    // Saturday 09:30 on the rig's clock.
    void theRulesLeaveCallsRingingOrTheOwnerPicksUpFirst()
    {
        AppRig rig;
        AnsweringRules::Texts texts;
        texts.ringOpen = QStringLiteral("20");
        texts.ringClosed = QStringLiteral("3");
        texts.hours = QStringLiteral("lun-sam 09:00-18:00");
        texts.neverAnswer = {QStringLiteral("06 12 34 56 78")};
        QVERIFY(!rig.model->setAnsweringRules(texts));
        QCOMPARE(rig.model->answeringRule(), QStringLiteral("Ouvert : Vemira répond après 20 s"));
        QVERIFY(rig.arm());
        QCOMPARE(rig.model->detail(),
                 QStringLiteral("Décrochage après 20 secondes, lorsque l’IA est prête."));
        const int probeConnections = rig.server.connectionCount();

        // A reserved number, written another way: left ringing, said once.
        const QString reserved = QStringLiteral("Appel de ") + kCallerNumber +
                                 QStringLiteral(" laissé sonner : numéro réservé");
        rig.ring();
        rig.tick(30);
        QVERIFY(!rig.model->busy());
        QCOMPARE(rig.model->log().filter(reserved).size(), 1);
        rig.phoneIdle();
        rig.tick();

        // Another caller rings 10 s, then the owner picks up: noted, nothing recorded.
        rig.ring(QStringLiteral("07 00 00 00 00"));
        rig.tick(10);
        rig.showActiveCall();
        rig.tick();
        QVERIFY(logHas(*rig.model, QStringLiteral("Appel de 07 00 00 00 00 décroché sur le "
                                                  "téléphone : Vemira ne l’enregistre pas")));
        rig.phoneIdle();
        rig.tick();

        // The rules changed by another program between two calls: the number is no longer
        // reserved, and its call is taken once it rang 20 s.
        texts.neverAnswer.clear();
        Settings(rig.settingsFile()).setAnsweringRules(AnsweringRules::parse(texts).value());
        rig.ring();
        rig.tick(20);
        QVERIFY(!rig.model->busy());
        rig.server.behaviour().confirmSessions = false;
        rig.tick();
        QVERIFY(rig.model->busy());
        QVERIFY(rig.server.waitForConnections(probeConnections + 1));

        // The owner picks it up while the AI connects: the owner's call, Vemira stays on duty.
        rig.showActiveCall();
        rig.tick();
        QVERIFY(!rig.model->busy());
        QVERIFY(rig.model->armed());
        QCOMPARE(rig.model->error(), QString());
        QCOMPARE(rig.answerButton->pressCount, 0);
        QCOMPARE(rig.hangUps, 0);
        QVERIFY(rig.model->records().isEmpty());
        QVERIFY(rig.historyOnDisk().isEmpty());
        QCOMPARE(lineText(rig.model->log().first()),
                 QStringLiteral("Appel de ") + kCallerNumber +
                     QStringLiteral(" décroché sur le téléphone : Vemira ne l’enregistre pas"));
    }

    void twentyMinutesOnThePhoneEndWithAGoodbyeAndAHangUp()
    {
        AppRig rig;
        rig.server.behaviour().answerResponses = true;
        rig.server.behaviour().replyTranscript = QStringLiteral("Merci, au revoir.");
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
        rig.showActiveCall();
        const double started = *rig.model->callStarted();
        rig.clock.advance(started + 1200 - rig.clock.uptime());
        QCoreApplication::processEvents();
        QVERIFY(rig.model->busy()); // exactly 20 minutes: not yet
        const qsizetype asked = clientEvents(rig.server, QStringLiteral("response.create")).size();
        rig.tick();
        QVERIFY(waitFor([&] {
            return clientEvents(rig.server, QStringLiteral("response.create")).size() > asked;
        }));
        QVERIFY(clientEvents(rig.server, QStringLiteral("response.create"))
                    .last()[QLatin1String("response")][QLatin1String("instructions")]
                    .toString()
                    .contains(QStringLiteral("au revoir")) ||
                clientEvents(rig.server, QStringLiteral("response.create"))
                    .last()[QLatin1String("response")][QLatin1String("instructions")]
                    .toString()
                    .contains(QStringLiteral("congé")));
        QCOMPARE(rig.hangUps, 0); // the goodbye is heard first
        QVERIFY(waitFor([&] {
            rig.tick();
            return !rig.model->busy();
        }));
        QCOMPARE(rig.hangUps, 1);
        QCOMPARE(rig.model->status(), QStringLiteral("Limite de 20 minutes atteinte"));
        QVERIFY(!rig.model->armed());
        QCOMPARE(rig.model->records().first().transcript.last().text,
                 QStringLiteral("Merci, au revoir."));
    }

    void aSilentGoodbyeStillEndsTheCall()
    {
        AppRig rig;
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
        rig.showActiveCall();
        const double started = *rig.model->callStarted();
        rig.clock.advance(started + 1201 - rig.clock.uptime());
        QCoreApplication::processEvents();
        QVERIFY(rig.model->busy());
        rig.tick(9);
        QVERIFY(rig.model->busy());
        rig.tick(2);
        QVERIFY(!rig.model->busy());
        QCOMPARE(rig.hangUps, 1);
    }

    void theCheckAfterAnsweringReopensTheAudio()
    {
        // Seen ringing at 1 s, answered at 4 s; the tick at 5 s sees sound flowing; the phone
        // then moves the devices: 1.5 s after answering the audio is reopened, then greeted.
        const auto answerThenStall = [](AppRig& rig) {
            rig.ring();
            rig.tick(4);
            if (!waitFor([&] { return rig.model->connected(); }))
                return false;
            rig.clock.advance(1.4);
            QCoreApplication::processEvents();
            rig.io->engines().first()->platformStopCapture();
            return rig.model->audio().needsRestart();
        };
        {
            AppRig rig;
            QVERIFY(rig.arm());
            QVERIFY(answerThenStall(rig));
            const QString reopened = QStringLiteral("Circuits audio réouverts après le décrochage");
            QVERIFY(!logHas(*rig.model, reopened));
            rig.clock.advance(0.1);
            QVERIFY(logHas(*rig.model, reopened));
            QVERIFY(rig.model->busy());
            QCOMPARE(rig.model->audioRecoveryCount(), 0);
            QVERIFY(!rig.model->audio().needsRestart());
        }
        // Reopening fails: the call ends and the sound path must be proven again.
        {
            AppRig rig;
            QVERIFY(rig.arm());
            QVERIFY(answerThenStall(rig));
            for (std::uint32_t id : {kCallDevice, kVoiceDevice})
                rig.io->device(id)->startError = QStringLiteral("Périphérique occupé");
            rig.clock.advance(0.1);
            QVERIFY(!rig.model->busy());
            QVERIFY(rig.model->error().startsWith(
                QStringLiteral("Audio interrompu après décrochage : ")));
            QVERIFY(!rig.model->routingConfirmed());
        }
    }

    void theManagerSpeaksAloneAndTheAIIsToldAfterwards()
    {
        AppRig rig;
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
        rig.showActiveCall();

        // A headset plugged in during the call is found when the manager takes over.
        rig.system->addDevice(30, QStringLiteral("Micro USB"), QStringLiteral("usb-mic"), true,
                              false, AudioTransport::usb);
        rig.io->addDevice(30, {48000, 1}, {48000, 2});
        rig.model->setInterventionMicUID(QStringLiteral("usb-mic"));
        rig.model->toggleIntervention();
        QVERIFY(rig.model->intervening());
        QCOMPARE(rig.model->phase(), Phase::Intervention);

        // The AI starts answering the caller: it is cancelled, its words are not recorded.
        const qsizetype lines = rig.model->current()->transcript.size();
        rig.server.sendEvent(ScriptedRealtimeServer::responseCreated(QStringLiteral("resp_a")));
        QVERIFY(waitFor([&] {
            return !clientEvents(rig.server, QStringLiteral("response.cancel")).isEmpty();
        }));
        rig.server.sendEvent(ScriptedRealtimeServer::aiTranscript(QStringLiteral("Je note.")));
        rig.server.sendEvent(ScriptedRealtimeServer::responseDone(QStringLiteral("resp_a"), 5, 5));
        QVERIFY(rig.callerSays(QStringLiteral("Bonjour monsieur.")));
        // Caller turns create no response while the manager speaks: nothing billed unheard.
        QVERIFY(waitFor([&] {
            const QJsonObject update =
                rig.server.eventsOfType(QStringLiteral("session.update")).last();
            return update[QLatin1String("session")][QLatin1String("audio")][QLatin1String("input")]
                         [QLatin1String("turn_detection")][QLatin1String("create_response")] ==
                   false;
        }));
        rig.server.endCallerTurn();
        QCOMPARE(rig.server.turnResponses(), 0);
        QCOMPARE(rig.model->current()->transcript.size(), lines + 1);
        QCOMPARE(rig.model->current()->transcript.last().speaker, QStringLiteral("Interlocuteur"));

        // Given back: one short system message, and the AI speaks for itself again.
        rig.model->toggleIntervention();
        QVERIFY(!rig.model->intervening());
        QVERIFY(waitFor([&] {
            return clientEvents(rig.server, QStringLiteral("conversation.item.create")).size() == 1;
        }));
        const QJsonObject note =
            clientEvents(rig.server, QStringLiteral("conversation.item.create")).first();
        rig.server.endCallerTurn();
        QCOMPARE(rig.server.turnResponses(), 1);
        QCOMPARE(note[QLatin1String("item")][QLatin1String("role")].toString(),
                 QStringLiteral("system"));
        rig.server.sendEvent(ScriptedRealtimeServer::aiTranscript(QStringLiteral("Je reprends.")));
        QVERIFY(waitFor([&] {
            return rig.model->current()->transcript.last().text == QStringLiteral("Je reprends.");
        }));
        QVERIFY(rig.server.violations().isEmpty());
    }

    void disarmingClearsTheRinging()
    {
        AppRig rig;
        QVERIFY(rig.arm());
        rig.ring();
        rig.tick();
        QCOMPARE(rig.model->detail(), QStringLiteral("Appel entrant · ") + kCallerNumber);
        QCOMPARE(rig.model->phase(), Phase::Ringing);
        rig.model->toggleArmed();
        QVERIFY(!rig.model->ringSince());
        QCOMPARE(rig.model->phase(), Phase::Paused);
        QCOMPARE(rig.model->status(), QStringLiteral("Standard en pause"));
        QCOMPARE(rig.model->detail(),
                 QStringLiteral("Activez le standard pour répondre aux appels."));
    }

    void noTestStartsWhileACheckRunsAndACheckCanBeCancelled()
    {
        AppRig rig;
        rig.model->setMacAudioVerified(true);
        rig.server.behaviour().confirmSessions = false;
        rig.model->toggleArmed();
        QVERIFY(rig.model->checkingAI());
        QVERIFY(rig.server.waitForConnections(1));

        rig.model->startTest();
        QVERIFY(!rig.model->busy());
        rig.showActiveCall();
        rig.model->takeCurrentCall();
        QVERIFY(!rig.model->busy());

        // Cancelled: the late confirmation arms nothing, and a test may start.
        rig.model->cancelCheck();
        QVERIFY(!rig.model->checkingAI());
        QVERIFY(!rig.model->hasConnectionProbe());
        QCOMPARE(rig.model->aiStatus(), QStringLiteral("Clé enregistrée · connexion à vérifier"));
        rig.server.sendEvent(ScriptedRealtimeServer::sessionUpdated());
        rig.clock.advance(15);
        QCoreApplication::processEvents();
        QVERIFY(!rig.model->armed());
        QCOMPARE(rig.model->error(), QString());
        rig.server.behaviour().confirmSessions = true;
        rig.model->startTest();
        QVERIFY(rig.model->busy());
    }

    void wakingUpArmsAgainOnceTheAIAnswers()
    {
        AppRig rig;
        QVERIFY(rig.model->rearmOnWake());
        QVERIFY(rig.arm());
        rig.sleep->sleepNow();
        QVERIFY(!rig.model->armed());
        rig.sleep->wakeNow();
        QVERIFY(rig.model->checkingAI());
        QVERIFY(waitFor([&] { return rig.model->armed(); }));
        QVERIFY(logHas(*rig.model,
                       QStringLiteral("Réveil : connexion à l’IA vérifiée, standard réactivé")));

        // The AI does not answer this time: the receptionist stays off and says why.
        rig.sleep->sleepNow();
        rig.server.behaviour().confirmSessions = false;
        rig.sleep->wakeNow();
        rig.clock.advance(15);
        QVERIFY(!rig.model->armed());
        QVERIFY(lineText(rig.model->log().first())
                    .startsWith(QStringLiteral("Réveil : le standard n’a pas pu être réactivé. ")));

        // Switched off: a wake-up leaves standby alone. The choice is kept.
        rig.server.behaviour().confirmSessions = true;
        QVERIFY(rig.arm());
        rig.model->setRearmOnWake(false);
        rig.sleep->sleepNow();
        rig.sleep->wakeNow();
        QVERIFY(!rig.model->checkingAI());
        QVERIFY(!rig.model->armed());
        QVERIFY(!Settings(rig.settingsFile()).rearmOnWake());
        // Never armed before sleeping: nothing to re-arm.
        rig.model->setRearmOnWake(true);
        rig.sleep->sleepNow();
        rig.sleep->wakeNow();
        QVERIFY(!rig.model->checkingAI());
    }

    void windDownStepsRunInOrderEachWithinItsBound()
    {
        AppRig rig;
        QStringList ran;
        // The first never reports: its bound moves on. The second fills in the record.
        rig.model->addWindDownStep(2.0, [&](CallRecord&, std::function<void()>) {
            ran << QStringLiteral("premier");
            QVERIFY(rig.model->realtime().isOpen());
        });
        rig.model->addWindDownStep(1.0, [&](CallRecord& record, std::function<void()> done) {
            ran << QStringLiteral("second");
            record.note = QStringLiteral("note de fin");
            done();
            done(); // a second report changes nothing
        });
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
        rig.model->finish();
        QCOMPARE(ran, QStringList{QStringLiteral("premier")});
        QVERIFY(rig.model->busy());
        QVERIFY(!rig.model->audio().captureRunning());
        QCOMPARE(rig.hangUps, 1); // the line is closed before anything else
        rig.clock.advance(1.9);
        QVERIFY(rig.model->busy());
        rig.clock.advance(0.1);
        QCOMPARE(ran, (QStringList{QStringLiteral("premier"), QStringLiteral("second")}));
        QVERIFY(!rig.model->busy());
        QVERIFY(!rig.model->realtime().isOpen());
        QCOMPARE(rig.model->records().first().note, QStringLiteral("note de fin"));

        // Finishing again during a wind-down closes at once (sleep, quitting).
        rig.tick(8);
        QVERIFY(rig.takeCall());
        rig.model->finish();
        QVERIFY(rig.model->busy());
        rig.model->finish();
        QVERIFY(!rig.model->busy());
        QCOMPARE(rig.model->records().size(), 2);
    }

    // One reading of the phone proves nothing: the hang-up is pressed, then watched on the
    // next ticks, pressed again while the call is still shown, and the owner told if it stays.
    void aHangUpIsWatchedUntilThePhoneLetsGo_data()
    {
        QTest::addColumn<bool>("redrawing");
        QTest::addColumn<int>("pressesNeeded");
        QTest::newRow("fenêtre en cours de dessin") << true << 1;
        QTest::newRow("premier appui sans effet") << false << 2;
        QTest::newRow("bouton sans effet") << false << 100;
    }
    void aHangUpIsWatchedUntilThePhoneLetsGo()
    {
        QFETCH(bool, redrawing);
        QFETCH(int, pressesNeeded);
        AppRig rig;
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
        int presses = 0;
        const auto showCall = [&] {
            rig.window->removeChildren();
            rig.window->add(axrole::button(), QStringLiteral("Raccrocher"))->onPress =
                [&](FakeElement& button) {
                    if (++presses >= pressesNeeded)
                        rig.hangUp(button);
                };
        };
        if (redrawing)
            rig.phoneIdle();
        else
            showCall();
        rig.model->finish();
        if (redrawing)
            showCall();
        rig.tick(12);
        QVERIFY(!rig.model->hangUpPending());
        QCOMPARE(rig.hangUps, pressesNeeded < 100 ? 1 : 0);
        const QString stuck =
            QStringLiteral("Vemira n’a pas pu raccrocher : l’appel est toujours en cours dans "
                           "l’application de téléphonie. Terminez l’appel dans l’application de "
                           "téléphonie.");
        if (pressesNeeded < 100) {
            QCOMPARE(presses, pressesNeeded);
            QVERIFY(rig.notifier->alerts().isEmpty());
            return;
        }
        // Bounded: given up, said, and no more presses.
        QCOMPARE(rig.model->error(), stuck);
        QVERIFY(logHas(*rig.model, stuck));
        QCOMPARE(rig.notifier->alerts().size(), 1);
        QCOMPARE(rig.notifier->alerts().first().title,
                 QStringLiteral("Vemira · Appel non raccroché"));
        const int given = presses;
        QVERIFY(given > 1);
        rig.tick(10);
        QCOMPARE(presses, given);
    }

    // An AI failure or the time limit while the manager speaks: the AI leaves, the manager
    // keeps the caller, and the call ends when one of them hangs up.
    void theManagerKeepsTheCallWhenTheAILeaves_data()
    {
        QTest::addColumn<bool>("timeLimit");
        QTest::addColumn<bool>("managerCloses");
        QTest::addColumn<QString>("status");
        QTest::newRow("erreur de l’IA, l’appelant raccroche") << false << false << kNeedsCheck;
        QTest::newRow("20 minutes, le gestionnaire ferme son micro")
            << true << true << QStringLiteral("Limite de 20 minutes atteinte");
    }
    void theManagerKeepsTheCallWhenTheAILeaves()
    {
        QFETCH(bool, timeLimit);
        QFETCH(bool, managerCloses);
        QFETCH(QString, status);
        AppRig rig;
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
        rig.showActiveCall();
        rig.tick();
        rig.model->toggleIntervention();
        QVERIFY(rig.model->intervening());
        if (timeLimit) {
            rig.clock.advance(*rig.model->callStarted() + 1201 - rig.clock.uptime());
            rig.tick();
        } else {
            rig.server.sendEvent(ScriptedRealtimeServer::error(QStringLiteral("session_expired")));
            QVERIFY(waitFor([&] { return !rig.model->armed(); }));
        }
        rig.tick(3);
        QVERIFY(rig.model->busy());
        QVERIFY(rig.model->intervening());
        QVERIFY(!rig.model->realtime().isOpen());
        QCOMPARE(rig.hangUps, 0);
        QVERIFY(!rig.model->armed());
        QCOMPARE(rig.model->current()->transcript.last().text,
                 QStringLiteral("L’IA a quitté l’appel ; le gestionnaire reste en ligne."));

        if (managerCloses) {
            rig.model->toggleIntervention();
        } else {
            rig.phoneIdle();
            rig.tick(5);
        }
        QVERIFY(waitFor([&] { return !rig.model->busy(); }));
        QCOMPARE(rig.hangUps, managerCloses ? 1 : 0);
        QCOMPARE(rig.model->status(), status);
        QCOMPARE(rig.model->records().size(), 1);
    }

    // The caller has left and the record is being completed: a failure now loses at most the
    // message, never the receptionist's standby.
    void anErrorDuringTheWindDownKeepsTheReceptionistOn()
    {
        AppRig rig;
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
        QVERIFY(rig.callerSays(QStringLiteral("Jean Dupuis, une fuite au 12 rue des Lilas.")));
        rig.showActiveCall();
        rig.tick();
        rig.phoneIdle();
        rig.tick(5);
        QVERIFY(waitFor([&] {
            const auto asked = rig.server.eventsOfType(QStringLiteral("response.create"));
            return std::any_of(asked.begin(), asked.end(),
                               ScriptedRealtimeServer::isMessageRequest);
        }));
        rig.server.sendEvent(ScriptedRealtimeServer::error(QStringLiteral("session_expired")));
        QVERIFY(waitFor([&] { return !rig.model->busy(); }));
        QVERIFY(rig.model->armed());
        QCOMPARE(rig.model->status(), QStringLiteral("À l’écoute des appels"));
        QCOMPARE(rig.historyOnDisk().size(), 1);
        QVERIFY(rig.notifier->alerts().isEmpty());
    }

    // Every way the receptionist goes off by itself reaches the owner with the reason; the
    // headline no longer says it listens. Switching it off oneself tells nobody.
    void everyUnaskedStopAlertsTheOwner_data()
    {
        QTest::addColumn<QString>("stop");
        QTest::addColumn<QString>("reason");
        QTest::newRow("échec") << QStringLiteral("fail")
                               << QStringLiteral("L’IA signale une erreur (session_expired).");
        QTest::newRow("modèle retiré")
            << QStringLiteral("refused")
            << QStringLiteral("L’IA signale une erreur (model_not_found).");
        QTest::newRow("accessibilité")
            << QStringLiteral("accessibility")
            << QStringLiteral("L’autorisation Accessibilité a été retirée.");
        QTest::newRow("20 minutes")
            << QStringLiteral("limit") << QStringLiteral("La conversation a atteint la limite");
        QTest::newRow("réveil") << QStringLiteral("wake")
                                << QStringLiteral("Au réveil de l’ordinateur, le standard n’a "
                                                  "pas pu être réactivé");
    }
    void everyUnaskedStopAlertsTheOwner()
    {
        QFETCH(QString, stop);
        QFETCH(QString, reason);
        AppRig rig;
        QVERIFY(rig.arm());
        rig.model->toggleArmed();
        QVERIFY(rig.arm());
        QVERIFY(rig.notifier->alerts().isEmpty());

        if (stop == u"accessibility") {
            rig.accessibility->trusted = false;
            rig.tick();
        } else if (stop == u"refused") {
            // The session of the call is refused (the model was withdrawn): the phone rings on.
            const auto updates = [&] {
                return rig.server.eventsOfType(QStringLiteral("session.update")).size();
            };
            const auto before = updates();
            QVERIFY(rig.takeCallWithoutReadyAI());
            QVERIFY(waitFor([&] { return updates() > before; }));
            rig.server.sendEvent(ScriptedRealtimeServer::error(QStringLiteral("model_not_found")));
            QVERIFY(waitFor([&] { return !rig.model->busy(); }));
            QCOMPARE(rig.answerButton->pressCount, 0);
        } else if (stop == u"wake") {
            rig.sleep->sleepNow();
            rig.server.behaviour().confirmSessions = false;
            rig.sleep->wakeNow();
            rig.clock.advance(AppModel::kAICheckTimeout);
        } else {
            QVERIFY(rig.takeCall());
            rig.showActiveCall();
            if (stop == u"fail")
                rig.server.sendEvent(
                    ScriptedRealtimeServer::error(QStringLiteral("session_expired")));
            else
                rig.clock.advance(*rig.model->callStarted() + 1201 - rig.clock.uptime());
            QVERIFY(waitFor([&] {
                rig.tick();
                return !rig.model->busy();
            }));
        }
        QVERIFY(!rig.model->armed());
        QVERIFY(rig.model->status() != QStringLiteral("À l’écoute des appels"));
        QCOMPARE(rig.notifier->alerts().size(), 1);
        const CallNotice alert = rig.notifier->alerts().first();
        QCOMPARE(alert.title, QStringLiteral("Vemira · Standard arrêté"));
        QVERIFY2(alert.body.contains(reason), qPrintable(alert.body));
        QVERIFY(alert.urgent);
    }

    void theLogPrinterPrintsRepeatedLinesToo()
    {
        AppRig rig;
        QString printed;
        QTextStream out(&printed);
        SessionLogPrinter printer(*rig.model, out);
        rig.model->saveSettings();
        rig.model->saveSettings();
        out.flush();
        QCOMPARE(printed.count(QStringLiteral("Réglages enregistrés")), 2);
        // Past the 50 lines the log keeps, every new line is still printed once.
        for (int i = 0; i < 60; ++i)
            rig.model->event(QStringLiteral("ligne"));
        out.flush();
        QCOMPARE(printed.count(QStringLiteral("· ligne\n")), 60);
    }
};

QTEST_GUILESS_MAIN(CallEndingsTest)
#include "tst_call_endings.moc"
