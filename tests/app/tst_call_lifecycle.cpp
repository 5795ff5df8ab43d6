// Whole calls played through the application model, from the ringing to what survives their
// end or failure: fake phone window and devices, the real realtime client against a scripted
// server on loopback, time on a manual clock.

#include "AppRig.h"
#include "cli/SessionLogPrinter.h"
#include "core/PlatformWording.h"
#include "records/CallRecord.h"
#include "records/Settings.h"

#include <QFileInfo>
#include <QSettings>
#include <QTest>

using namespace vemira;
using namespace vemira::testing;
using S = ScriptedRealtimeServer;

namespace {

const QString kNoReadyMessage = QStringLiteral(
    "L’IA n’a pas répondu dans les 15 secondes. Aucun décrochage automatique effectué.");
const QString kNeedsCheck = QStringLiteral("Une vérification est nécessaire");
const QString kKept = QStringLiteral("La conversation est conservée sur ce Mac.");

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

// The AI's voice: 24 kHz 16-bit samples of a steady, clearly audible level.
QByteArray voicePCM(double seconds)
{
    return QByteArray(int(seconds * 24000) * 2, '\x10');
}

// Records what the model asks of the platform's stream routing.
class FakeRouting final : public PhoneAudioRouting {
public:
    Status route(const PhoneStreamOwner& owner, const QString& callUID,
                 const QString& voiceUID) override
    {
        routes << QStringList{QString::number(owner.processId), owner.names.join(QLatin1Char(',')),
                              callUID, voiceUID, QString::number(*pressesAtRoute)};
        if (failure)
            return AppError(*failure);
        m_routing = true;
        return std::nullopt;
    }
    void release() override
    {
        m_routing = false;
        ++releases;
    }
    bool routing() const override { return m_routing; }
    PhoneRoutingCounts counts() const override { return {2, 1, 1, 0}; }

    QList<QStringList> routes;
    int releases = 0;
    std::optional<QString> failure;
    const int* pressesAtRoute = nullptr;

private:
    bool m_routing = false;
};

bool anySound(const std::vector<float>& samples)
{
    return std::any_of(samples.begin(), samples.end(), [](float s) { return std::abs(s) > 0.01f; });
}

} // namespace

class CallLifecycleTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // The texts quoted here are the macOS ones, word for word: selecting them on every
    // platform keeps these cases a guard against their drift.
    void initTestCase() { PlatformWording::select(WordingPlatform::MacOS); }
    void init() { QLocale::setDefault(QLocale(QLocale::French, QLocale::France)); }

    void shortRingIsNeverTakenAndThreeSecondsIs()
    {
        AppRig rig;
        QVERIFY(rig.arm());
        QCOMPARE(rig.model->status(), QStringLiteral("À l’écoute des appels"));
        QCOMPARE(rig.model->detail(),
                 QStringLiteral("Décrochage après 3 secondes, lorsque l’IA est prête."));
        const int probeConnections = rig.server.connectionCount();

        // Two seconds of ringing, then the offer is gone: nothing is started.
        rig.ring();
        rig.tick();
        QCOMPARE(rig.model->detail(), QStringLiteral("Appel entrant · ") + kCallerNumber);
        rig.tick(2);
        rig.phoneIdle();
        rig.tick();
        QVERIFY(!rig.model->ringSince());
        QVERIFY(!rig.model->busy());

        // A new ringing counts from its own start: taken at the tick where 3 s have passed.
        rig.ring();
        rig.tick(3);
        QVERIFY(!rig.model->busy());
        rig.tick();
        QVERIFY(rig.model->busy());
        QCOMPARE(rig.answerButton->pressCount, 0); // the tick itself never answers
        QVERIFY(rig.server.waitForConnections(probeConnections + 1));
        QCOMPARE(rig.model->current()->caller, kCallerNumber);
        QCOMPARE(rig.model->current()->kind, QStringLiteral("Appel"));
    }

    void wholeCallReachesTheSavedRecord()
    {
        AppRig rig;
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCallWithoutReadyAI());
        QCOMPARE(rig.model->status(), QStringLiteral("Connexion à Vemira…"));
        rig.tick(5);
        // Not ready: no audio path was opened and the phone still rings.
        QCOMPARE(rig.answerButton->pressCount, 0);
        QCOMPARE(rig.io->openCount(), 0);

        rig.server.sendEvent(S::sessionUpdated());
        QVERIFY(rig.connected());
        QCOMPARE(rig.answerButton->pressCount, 1);
        QCOMPARE(rig.pressTimeout, 1.0); // a press gets a second, not a label read's 0.03 s
        QVERIFY(rig.bridgeRanAtAnswer);
        QVERIFY(rig.aiReadyAtAnswer);
        QCOMPARE(rig.model->status(), QStringLiteral("Conversation en cours"));
        QCOMPARE(rig.model->detail(),
                 QStringLiteral("Décrochage demandé · Enregistrement audio actif"));
        QVERIFY(rig.model->log().first().endsWith(QStringLiteral(" · Décrochage demandé")));

        // The greeting is asked for once the answered call had 1.5 s to settle.
        rig.advance(1.4);
        // (The connection check's one-token request is kept out of the conversation.)
        const auto greetings = [&] {
            return std::count_if(
                rig.server.events().begin(), rig.server.events().end(), [](const QJsonObject& e) {
                    return e[QLatin1String("type")] == QLatin1String("response.create") &&
                           !e[QLatin1String("response")].toObject().contains(
                               QLatin1String("conversation"));
                });
        };
        QCOMPARE(greetings(), 0);
        rig.clock.advance(0.2);
        QVERIFY(waitFor([&] { return greetings() == 1; }));

        // Both voices travel: the caller up to the server, the AI down to the voice device.
        rig.io->feedTone(kCallDevice, 300, 0.5, 0.5);
        QVERIFY(waitFor([&] { return rig.server.receivedAudio().size() >= 24000; }));
        rig.server.sendEvent(S::callerTranscript(QStringLiteral("J’ai une fuite d’eau.")));
        rig.server.sendEvent(S::responseCreated(QStringLiteral("r1")));
        rig.server.sendEvent(S::audioDelta(voicePCM(0.3)));
        rig.server.sendEvent(S::aiTranscript(QStringLiteral("Depuis quand ?")));
        rig.server.sendEvent(S::responseDone(QStringLiteral("r1"), 500, 300));
        QVERIFY(waitFor([&] { return rig.model->current()->transcript.size() == 2; }));
        QVERIFY(waitFor([&] { return anySound(rig.io->played(kVoiceDevice)); }));
        QVERIFY(waitFor([&] { return rig.model->conversationUsage().outputTokens == 300; }));

        // The call shows as active, a brief glitch of four ticks is forgiven.
        rig.tick();
        QVERIFY(rig.model->sawActiveCall());
        rig.phoneIdle();
        rig.tick(4);
        QCOMPARE(rig.model->missingActive(), 4);
        rig.showActiveCall();
        rig.tick();
        QCOMPARE(rig.model->missingActive(), 0);

        // The caller hangs up: five ticks without a call end the conversation. The message is
        // asked for in the still open session, and the record saved once it came.
        rig.server.behaviour().messageArguments = QStringLiteral(
            R"({"identity":"Jean Dupuis","problem":"Fuite d’eau","urgency":"Urgent",)"
            R"("callback":"06 12 34 56 78","summary":"Fuite d’eau chez Jean Dupuis."})");
        rig.phoneIdle();
        rig.tick(4);
        QVERIFY(rig.model->busy());
        rig.tick();
        QVERIFY(rig.ended());
        QCOMPARE(rig.hangUps, 0); // the caller left: nothing to press
        QVERIFY(rig.model->armed());
        QCOMPARE(rig.model->status(), QStringLiteral("À l’écoute des appels"));
        QCOMPARE(rig.model->detail(), kKept);
        QVERIFY(!rig.model->current());

        QCOMPARE(rig.model->records().size(), 1);
        const CallRecord saved = rig.model->records().first();
        QCOMPARE(rig.speakers(saved),
                 (QStringList{QStringLiteral("Interlocuteur: J’ai une fuite d’eau."),
                              QStringLiteral("Vemira: Depuis quand ?")}));
        QVERIFY(saved.message);
        QCOMPARE(saved.message->identity, QStringLiteral("Jean Dupuis"));
        QCOMPARE(saved.message->callback, QStringLiteral("06 12 34 56 78"));
        QVERIFY(saved.message->address.isEmpty()); // not given: not invented
        // The message's own tokens are in the estimate.
        QVERIFY(saved.usage);
        QCOMPARE(saved.usage->inputTokens, 500 + 900);
        QCOMPARE(saved.usage->outputTokens, 300 + 60);
        QCOMPARE(saved.usage->pendingResponses, 0);

        // The recording is finished after the record was saved, then the record is updated.
        QVERIFY(waitFor([&] { return rig.model->finalizingRecordings().isEmpty(); }, 10));
        const CallRecord finished = rig.model->records().first();
        QCOMPARE(finished.recordingFile,
                 std::optional<QString>(QStringLiteral("Appel-") + uuidText(saved.id) +
                                        QStringLiteral(".wav")));
        const QFileInfo wav(QDir(rig.model->recordingsFolder()).filePath(*finished.recordingFile));
        QVERIFY(wav.exists());
        QVERIFY(wav.size() > 48000); // more than a second of 32-bit samples
        QCOMPARE(rig.historyOnDisk().value(0), finished);

        // Eight seconds of cool-down: a new ringing is not even looked at before then.
        rig.ring(QStringLiteral("06 98 76 54 32"));
        rig.tick(8);
        QCOMPARE(rig.model->detail(), kKept);
        rig.tick();
        QCOMPARE(rig.model->detail(), QStringLiteral("Appel entrant · 06 98 76 54 32"));
        QVERIFY(rig.server.violations().isEmpty());
    }

    void unansweredMessageStillSavesTheCall()
    {
        AppRig rig;
        QVERIFY(rig.armAndTakeCall());
        QVERIFY(rig.callerSays(QStringLiteral("Jean Dupuis, au 12 rue des Lilas.")));
        // The model never answers: the record waits no longer than the bound.
        rig.model->finish();
        QVERIFY(rig.messageRequested());
        // It starts an answer that never ends.
        rig.server.sendEvent(S::responseCreated(QStringLiteral("r_msg")));
        QVERIFY(waitFor([&] { return rig.model->conversationUsage().pendingResponses == 1; }));
        rig.advance(4.9);
        QVERIFY(rig.model->busy());
        QCOMPARE(rig.model->records().first().progress, CallProgress::InProgress);
        rig.clock.advance(0.2);
        // Then that answer's bilan is waited for, as briefly, before the session closes.
        QVERIFY(rig.model->busy());
        rig.clock.advance(3.0);
        QVERIFY(rig.ended());
        QCOMPARE(rig.model->records().size(), 1);
        QVERIFY(!rig.model->records().first().message);
        QCOMPARE(rig.historyOnDisk().size(), 1);
        // The unfinished answer stays reserved in the estimate rather than forgotten.
        QCOMPARE(rig.model->records().first().usage->pendingResponses, 1);
        QVERIFY(rig.server.violations().isEmpty());
    }

    void theAIsTroublesReachTheRecordTheLogAndTheCost()
    {
        AppRig rig;
        // The call's message comes at once, so what follows waits only for the bilan.
        rig.server.behaviour().messageArguments = QStringLiteral(R"({"problem":"Fuite"})");
        QVERIFY(rig.armAndTakeCall());
        const qsizetype lines = rig.model->current()->transcript.size();
        auto send = [&](const QList<QJsonObject>& events, qsizetype linesAfter) {
            for (const QJsonObject& event : events)
                rig.server.sendEvent(event);
            return waitFor([&] {
                return rig.model->current() &&
                       rig.model->current()->transcript.size() == lines + linesAfter;
            });
        };
        // An answer the caller cut: the record keeps the lines in spoken order, the cut one
        // marked.
        QVERIFY(send({S::callerTranscript(QStringLiteral("Bonjour, c’est pour une fuite.")),
                      S::responseCreated(QStringLiteral("r1")),
                      S::audioDelta(voicePCM(1.0), QStringLiteral("r1")),
                      S::aiTranscript(QStringLiteral("Je note. Quelle est votre adresse ?"),
                                      QStringLiteral("r1")),
                      S::responseDone(QStringLiteral("r1"), 500, 300), S::speechStarted(),
                      S::callerTranscript(QStringLiteral("Attendez…"))},
                     3));
        QCOMPARE(rig.speakers(*rig.model->current()).mid(lines),
                 (QStringList{QStringLiteral("Interlocuteur: Bonjour, c’est pour une fuite."),
                              QStringLiteral("Vemira: Je note. Quelle est votre adresse ?…"),
                              QStringLiteral("Interlocuteur: Attendez…")}));

        // A response the provider could not produce is said in the log; the call goes on.
        rig.server.sendEvent(
            S::responseFailed(QStringLiteral("r2"), QStringLiteral("rate_limit_exceeded")));
        QVERIFY(waitFor([&] { return rig.model->log().first().contains(u"rate_limit_exceeded"); }));
        QVERIFY(rig.model->busy());

        // The caller hangs up while an answer is being generated: its bilan, a moment later,
        // replaces the reservation in the stored estimate.
        rig.server.sendEvent(S::responseCreated(QStringLiteral("r3")));
        QVERIFY(waitFor([&] { return rig.model->conversationUsage().pendingResponses == 1; }));
        rig.tick();
        QVERIFY(rig.model->sawActiveCall());
        rig.phoneIdle();
        rig.tick(5);
        QVERIFY(rig.model->busy());
        rig.server.sendEvent(S::responseDone(QStringLiteral("r3"), 1000, 200));
        QVERIFY(rig.ended());
        const CallRecord first = rig.model->records().first();
        QCOMPARE(first.usage->pendingResponses, 0);
        QCOMPARE(first.usage->inputTokens, 500 + 1000 + rig.server.behaviour().messageInputTokens);
        QVERIFY(*first.usage->estimatedUSD < 0.5);

        QVERIFY(rig.server.violations().isEmpty());
    }

    // The phone application chosen in the settings is the only one watched; a new choice
    // applies at once when no conversation runs, else once it is saved, and is kept.
    void onlyTheChosenPhoneApplicationIsWatched()
    {
        ModelRig rig;
        QSettings(rig.settingsFile(), QSettings::IniFormat)
            .setValue(QStringLiteral("phoneApp"), QStringLiteral("twinkle"));
        rig.model = std::make_unique<AppModel>(rig.fakeDependencies());
        rig.prepareForCalls();
        QCOMPARE(rig.model->phoneApp(), QStringLiteral("twinkle"));
        QVERIFY(rig.arm());
        rig.ring();
        rig.tick(5);
        QVERIFY(!rig.model->busy());
        QCOMPARE(rig.answerButton->pressCount, 0);

        // Every known application again (here, the platform's own): the ringing call is taken.
        rig.model->setPhoneApp(QString());
        QVERIFY(rig.model->log().first().endsWith(
            QStringLiteral(" · Application de téléphonie surveillée : toutes les applications "
                           "connues")));
        rig.tick(4);
        QVERIFY(rig.model->busy());
        QVERIFY(rig.connected());

        // Chosen during the call: the call still ends in the application that rang.
        rig.model->setPhoneApp(QStringLiteral("gnome-calls"));
        rig.showActiveCall();
        rig.model->finish();
        QVERIFY(rig.ended());
        QCOMPARE(rig.hangUps, 1);
        QVERIFY(rig.model->log().join(u'\n').contains(
            QStringLiteral(" · Application de téléphonie surveillée : GNOME Calls")));
        rig.tick(9);
        rig.ring();
        rig.tick(5);
        QVERIFY(!rig.model->busy());
        QCOMPARE(Settings(rig.settingsFile()).phoneApp(), QStringLiteral("gnome-calls"));
    }

    // On a platform that routes streams, the answered phone application's audio goes through
    // the call's devices once it has answered, and back when the conversation is saved; a
    // routing failure is told in the log and the call goes on.
    void answeredPhoneAudioIsRoutedForTheCallOnly()
    {
        ModelRig rig;
        AppDependencies deps = rig.fakeDependencies();
        auto owned = std::make_unique<FakeRouting>();
        FakeRouting* routing = owned.get();
        deps.phoneRouting = std::move(owned);
        rig.model = std::make_unique<AppModel>(std::move(deps));
        rig.prepareForCalls();
        QVERIFY(rig.arm());
        rig.ring();
        routing->pressesAtRoute = &rig.answerButton->pressCount;
        rig.tick(4);
        QVERIFY(rig.connected());
        QCOMPARE(routing->routes,
                 (QList<QStringList>{{QStringLiteral("0"), kPhoneApp, BrelianDevices::callUID(),
                                      BrelianDevices::voiceUID(), QStringLiteral("1")}}));
        QCOMPARE(routing->releases, 0);

        rig.model->finish();
        QVERIFY(rig.ended());
        QCOMPARE(routing->releases, 1);
        QVERIFY(rig.model->log().first().endsWith(
            QStringLiteral(" · Son du téléphone rendu : 2 flux dirigés vers Vemira, 1 remis en "
                           "place, 1 fermés par le téléphone")));

        // Unreachable devices: said, and the conversation still runs.
        routing->failure = QStringLiteral("Appareils virtuels introuvables.");
        rig.tick(9);
        rig.ring();
        routing->pressesAtRoute = &rig.answerButton->pressCount;
        rig.tick(4);
        QVERIFY(rig.connected());
        QVERIFY(rig.model->log().join(QLatin1Char('\n')).contains(*routing->failure));
        rig.model->finish();
        QVERIFY(rig.ended());
        QCOMPARE(routing->releases, 1); // nothing was routed, nothing to give back
    }

    void silentServerLeavesThePhoneRingingAndDisarms()
    {
        AppRig rig;
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCallWithoutReadyAI());
        QVERIFY(rig.callerSays(QStringLiteral("Allô ? Il y a quelqu’un ?")));

        rig.advance(14.9);
        QVERIFY(rig.model->busy());
        rig.clock.advance(0.1);
        QVERIFY(!rig.model->busy());
        QVERIFY(!rig.model->armed());
        QCOMPARE(rig.model->status(), kNeedsCheck);
        QCOMPARE(rig.model->error(), kNoReadyMessage);
        QVERIFY(rig.model->log().first().endsWith(QStringLiteral(" · ") + kNoReadyMessage));
        QVERIFY(rig.model->routingConfirmed()); // the AI failed, not the sound path
        QCOMPARE(rig.answerButton->pressCount, 0);
        QCOMPARE(rig.io->openCount(), 0);
        QVERIFY(rig.model->phone().incoming().has_value()); // still ringing

        // What the caller said before the failure is kept.
        QCOMPARE(rig.model->records().size(), 1);
        QCOMPARE(rig.speakers(rig.model->records().first()),
                 QStringList{QStringLiteral("Interlocuteur: Allô ? Il y a quelqu’un ?")});
        QCOMPARE(rig.historyOnDisk().size(), 1);

        // A ready report that comes late finds nothing to do.
        rig.model->sessionReady();
        rig.tick(2);
        QCOMPARE(rig.answerButton->pressCount, 0);
        QCOMPARE(rig.io->openCount(), 0);
        QVERIFY(!rig.model->busy());
        QCOMPARE(rig.model->status(), kNeedsCheck);
    }

    // Pressed, but the phone never shows a call: still offered, the answer failed; gone, the
    // caller hung up right after it and the receptionist stays on duty.
    void unconfirmedAnswerEndsAfterThirtySeconds_data()
    {
        QTest::addColumn<bool>("callerLeft");
        QTest::newRow("toujours proposé") << false;
        QTest::newRow("appelant parti") << true;
    }
    void unconfirmedAnswerEndsAfterThirtySeconds()
    {
        QFETCH(bool, callerLeft);
        AppRig rig;
        QVERIFY(rig.arm());
        rig.ring();
        rig.answerButton->onPress = nullptr;
        rig.tick(4);
        const double started = *rig.model->callStarted();
        QVERIFY(rig.connected());
        if (callerLeft)
            rig.phoneIdle();
        rig.tick(static_cast<int>(started + 30 - rig.clock.uptime()));
        QVERIFY(rig.model->busy()); // exactly 30 s: not yet
        rig.tick();
        QVERIFY(!rig.model->busy());
        QCOMPARE(rig.model->armed(), callerLeft);
        QCOMPARE(rig.model->error(),
                 callerLeft ? QString()
                            : QStringLiteral("Le décrochage a été demandé, mais la présence d’un "
                                             "appel actif n’a pas pu être confirmée. L’audio "
                                             "disponible a été sauvegardé."));
        QCOMPARE(rig.model->records().size(), 1);
        QCOMPARE(rig.model->records().first().kind, QStringLiteral("Appel"));
    }

    void stallsAreRestartedTwiceThenTheCallEndsWithItsAudio()
    {
        AppRig rig;
        QVERIFY(rig.armAndTakeCall());
        QVERIFY(rig.callerSays(QStringLiteral("C’est au 12 rue des Lilas.")));
        rig.showActiveCall();
        rig.tick(2); // past the post-answer check, which does not count its own restart

        for (int stall = 1; stall <= 2; ++stall) {
            rig.io->engines().first()->platformStopCapture();
            QVERIFY(rig.model->audio().needsRestart());
            rig.tick();
            QVERIFY(rig.model->busy());
            QCOMPARE(rig.model->audioRecoveryCount(), stall);
            QCOMPARE(rig.model->log().value(0).section(QStringLiteral(" · "), 1),
                     QStringLiteral("Transport audio relancé (%1/2)").arg(stall));
            QVERIFY(
                rig.model->log().value(1).contains(QStringLiteral("Diagnostic avant relance : ")));
            QVERIFY(!rig.model->audio().needsRestart());
            // Caller audio flows again after the restart.
            const auto before = rig.server.receivedAudio().size();
            QVERIFY(waitFor([&] { return rig.server.receivedAudio().size() > before + 4800; }));
        }

        rig.server.behaviour().messageArguments = QStringLiteral("{}");
        rig.io->engines().first()->platformStopCapture();
        rig.tick();
        QVERIFY(rig.ended());
        QVERIFY(!rig.model->armed());
        const QString error = rig.model->error();
        QVERIFY2(error.startsWith(QStringLiteral("Le son de l’appel est interrompu. ")),
                 qPrintable(error));
        QVERIFY2(error.endsWith(
                     QStringLiteral(" La session a été arrêtée et l’audio disponible sauvegardé.")),
                 qPrintable(error));
        QVERIFY(error.contains(QStringLiteral("moteurs entrée/sortie : arrêté/")));

        QVERIFY(waitFor([&] { return rig.model->finalizingRecordings().isEmpty(); }, 10));
        const CallRecord saved = rig.model->records().first();
        QCOMPARE(rig.speakers(saved),
                 QStringList{QStringLiteral("Interlocuteur: C’est au 12 rue des Lilas.")});
        QVERIFY(saved.recordingFile);
        QVERIFY(
            QFileInfo::exists(QDir(rig.model->recordingsFolder()).filePath(*saved.recordingFile)));
    }

    void sleepOrPowerOffDisarmsAndSaves_data()
    {
        QTest::addColumn<bool>("powerOff");
        QTest::addColumn<QString>("status");
        QTest::newRow("veille") << false << QStringLiteral("En pause · Mac en veille");
        QTest::newRow("extinction")
            << true << QStringLiteral("Standard arrêté · extinction de l’ordinateur");
    }
    void sleepOrPowerOffDisarmsAndSaves()
    {
        QFETCH(bool, powerOff);
        QFETCH(QString, status);
        AppRig rig;
        QVERIFY(rig.armAndTakeCall());
        QVERIFY(rig.callerSays(QStringLiteral("Rappelez-moi demain.")));

        if (powerOff)
            rig.sleep->powerOffNow();
        else
            rig.sleep->sleepNow();
        QVERIFY(!rig.model->armed());
        QVERIFY(!rig.model->busy());
        QCOMPARE(rig.hangUps, 1);
        QVERIFY(!rig.model->audio().captureRunning());
        QCOMPARE(rig.model->status(), status);
        QCOMPARE(rig.speakers(rig.historyOnDisk().value(0)),
                 QStringList{QStringLiteral("Interlocuteur: Rappelez-moi demain.")});
        QVERIFY(rig.server.waitForClientClose(2)); // the probe's session, then the call's
    }

    void quittingDuringACallKeepsItAndItsRecording()
    {
        AppRig rig;
        QVERIFY(rig.armAndTakeCall());
        const QUuid id = rig.model->current()->id;
        // On disk from the answer on, in progress, and beyond the reach of a deletion.
        QCOMPARE(rig.historyOnDisk().value(0).progress, CallProgress::InProgress);
        rig.model->deleteRecord(id);
        QVERIFY(rig.model->error().contains(QStringLiteral("en cours")));
        QVERIFY(rig.callerSays(QStringLiteral("Je rappellerai.")));
        QVERIFY(rig.callerSays(QStringLiteral("Merci.")));
        // The lines are gathered into one write a few seconds later, not one write each.
        const auto linesOnDisk = [&] {
            const auto last = RecordsStore(DataFolder(rig.dir.path())).readCallInProgress();
            return last && last->id == id ? last->transcript.size() : -1;
        };
        QCOMPARE(linesOnDisk(), 0);
        rig.clock.advance(1.9);
        QCOMPARE(linesOnDisk(), 0);
        rig.clock.advance(0.1); // 2 s after the first line
        QVERIFY(waitFor([&] { return linesOnDisk() == 2; }));
        QVERIFY(waitFor([&] { return rig.server.receivedAudio().size() >= 4800; }));

        rig.model.reset();
        const QList<CallRecord> history = rig.historyOnDisk();
        QCOMPARE(history.size(), 1);
        QCOMPARE(history.first().id, id);
        QCOMPARE(history.first().progress, CallProgress::Ended);
        QCOMPARE(rig.speakers(history.first()),
                 (QStringList{QStringLiteral("Interlocuteur: Je rappellerai."),
                              QStringLiteral("Interlocuteur: Merci.")}));
        QVERIFY2(history.first().recordingFile,
                 qPrintable(history.first().recordingError.value_or(QStringLiteral("?"))));
        QVERIFY(QFileInfo::exists(DataFolder(rig.dir.path()).recordingsFolder() +
                                  QStringLiteral("/") + *history.first().recordingFile));
    }

    void interventionTakesTheCallerAndStallsUnderItEndTheCall()
    {
        AppRig rig;
        QVERIFY(rig.armAndTakeCall());
        rig.showActiveCall();

        // The call's own devices cannot serve the manager.
        rig.model->setInterventionMicUID(BrelianDevices::callUID());
        rig.model->toggleIntervention();
        QVERIFY(!rig.model->intervening());
        QCOMPARE(rig.model->error(),
                 QStringLiteral("Choisissez votre micro et votre casque ou haut-parleur dans "
                                "Connexions → Intervention humaine."));

        rig.model->setInterventionMicUID(QStringLiteral("headset-mic"));
        rig.model->toggleIntervention();
        QVERIFY(rig.model->intervening());
        QCOMPARE(rig.model->current()->transcript.last().speaker, QStringLiteral("Suivi"));
        QCOMPARE(rig.model->current()->transcript.last().text,
                 QStringLiteral("Intervention du gestionnaire : voix de l’IA suspendue. Cette "
                                "partie est conservée dans l’audio si l’enregistrement est activé "
                                "; elle n’est pas transcrite automatiquement."));

        rig.model->toggleIntervention();
        QVERIFY(!rig.model->intervening());
        QCOMPARE(rig.model->current()->transcript.last().text,
                 QStringLiteral("Fin de l’intervention du gestionnaire. Reprise de l’IA."));

        // A stop under the manager's voice is never restarted, whatever the counter says.
        rig.model->toggleIntervention();
        QVERIFY(rig.model->intervening());
        rig.io->engines().first()->platformStopCapture();
        rig.tick();
        QVERIFY(!rig.model->busy());
        QCOMPARE(rig.model->audioRecoveryCount(), 0);
        QCOMPARE(rig.model->error(),
                 QStringLiteral("Le son a été interrompu pendant votre intervention. Reprenez "
                                "l’appel dans Téléphone."));
        QVERIFY(!rig.model->intervening());
        QCOMPARE(rig.historyOnDisk().value(0).transcript.size(), 3);
        // The manager's devices were given back.
        QCOMPARE(rig.system->defaults.value(AudioSelector::defaultInput), kHeadsetMic);
    }

    // Disarming forgets a ringing at once but lets a conversation finish.
    void disarmingClearsTheRingingAndLetsACallFinish()
    {
        AppRig rig;
        QVERIFY(rig.arm());
        rig.ring();
        rig.tick();
        QCOMPARE(rig.model->phase(), Phase::Ringing);
        rig.model->toggleArmed();
        QVERIFY(!rig.model->ringSince());
        QCOMPARE(rig.model->phase(), Phase::Paused);
        QCOMPARE(rig.model->status(), QStringLiteral("Standard en pause"));

        QVERIFY(rig.armAndTakeCall());
        rig.showActiveCall();
        rig.model->toggleArmed();
        QCOMPARE(rig.model->status(), QStringLiteral("Conversation en cours"));
        rig.tick(2);
        QVERIFY(rig.model->busy());
        rig.phoneIdle();
        rig.tick(5);
        QVERIFY(!rig.model->busy());
        QCOMPARE(rig.model->status(), QStringLiteral("Standard en pause"));
        // Not armed: a new ringing is ignored.
        rig.ring();
        rig.tick(12);
        QVERIFY(!rig.model->busy());
    }

    void anErrorEventKeepsAUsableSession()
    {
        AppRig rig;
        QVERIFY(rig.armAndTakeCall());
        rig.showActiveCall();
        const QString busyResponse = QStringLiteral(
            "L’IA signale une erreur (conversation_already_has_active_response). Vérifiez votre "
            "configuration.");
        rig.server.sendEvent(S::error(QStringLiteral("conversation_already_has_active_response")));
        rig.server.sendEvent(S::error(QStringLiteral("response_cancel_not_active")));
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
        rig.server.sendEvent(S::error(QStringLiteral("session_expired")));
        QVERIFY(rig.ended());
        QCOMPARE(rig.hangUps, 1);
        for (const QJsonObject& request : rig.sent(QStringLiteral("response.create")))
            QVERIFY(!request.value(QLatin1String("response"))
                         .toObject()
                         .contains(QLatin1String("tool_choice")));
    }

    // Seen by the ticks while the AI is still connecting (a single reading without the offer
    // is not enough), or by the answer itself when the AI became ready in between.
    void callerLeavingWhileTheAIConnectsIsAMissedCall_data()
    {
        QTest::addColumn<bool>("byTheAnswer");
        QTest::newRow("vu par la surveillance") << false;
        QTest::newRow("vu au décrochage") << true;
    }
    void callerLeavingWhileTheAIConnectsIsAMissedCall()
    {
        QFETCH(bool, byTheAnswer);
        AppRig rig;
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCallWithoutReadyAI());
        if (byTheAnswer) {
            rig.answerButton->title = QString(); // the offer's button is gone with it
            rig.phoneIdle();
            rig.server.sendEvent(S::sessionUpdated());
            QVERIFY(rig.ended());
        } else {
            rig.phoneIdle();
            rig.tick();
            rig.ring();
            rig.tick();
            QVERIFY(rig.model->busy());
            rig.phoneIdle();
            QVERIFY(rig.ended(true));
            QCOMPARE(rig.answerButton->pressCount, 0);
        }
        QVERIFY(rig.model->armed());
        QVERIFY(rig.model->routingConfirmed());
        QCOMPARE(rig.model->error(), QString());
        QCOMPARE(rig.hangUps, 0);
        const CallRecord saved = rig.historyOnDisk().value(0);
        QCOMPARE(saved.kind, QStringLiteral("Appel"));
        QCOMPARE(saved.caller, kCallerNumber);
        QCOMPARE(lineText(rig.model->log().first()),
                 QStringLiteral("Appel manqué : %1 a raccroché").arg(kCallerNumber));
        // Still on duty: the next call after the 8 s cool-down is taken.
        rig.tick(8);
        rig.server.behaviour().confirmSessions = true;
        QVERIFY(rig.takeCall());
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
        QVERIFY(lineText(rig.model->log().first())
                    .startsWith(QStringLiteral("Appel de ") + kCallerNumber +
                                QStringLiteral(" décroché")));
    }

    // The goodbye is heard before the hang-up; one never spoken still ends the call 10 s on.
    void twentyMinutesOnThePhoneEndWithAGoodbyeAndAHangUp_data()
    {
        QTest::addColumn<bool>("spoken");
        QTest::newRow("au revoir dit") << true;
        QTest::newRow("au revoir muet") << false;
    }
    void twentyMinutesOnThePhoneEndWithAGoodbyeAndAHangUp()
    {
        QFETCH(bool, spoken);
        AppRig rig;
        rig.server.behaviour().answerResponses = spoken;
        rig.server.behaviour().replyTranscript = QStringLiteral("Merci, au revoir.");
        QVERIFY(rig.armAndTakeCall());
        rig.showActiveCall();
        const double started = *rig.model->callStarted();
        rig.advance(started + 1200 - rig.clock.uptime());
        QVERIFY(rig.model->busy()); // exactly 20 minutes: not yet
        const auto asked = [&] { return rig.sent(QStringLiteral("response.create")); };
        const qsizetype before = asked().size();
        rig.tick();
        // A response asked before the limit (the unanswered greeting) may still be on its way
        // when the tick runs: the goodbye is looked for among everything sent since.
        QVERIFY(waitFor([&] {
            const auto events = asked();
            return std::any_of(events.cbegin() + before, events.cend(), [](const QJsonObject& e) {
                const QString text =
                    e[QLatin1String("response")][QLatin1String("instructions")].toString();
                return text.contains(QStringLiteral("au revoir")) ||
                       text.contains(QStringLiteral("congé"));
            });
        }));
        QCOMPARE(rig.hangUps, 0); // the goodbye is heard first
        if (spoken) {
            QVERIFY(rig.ended(true));
            QCOMPARE(rig.model->records().first().transcript.last().text,
                     QStringLiteral("Merci, au revoir."));
        } else {
            rig.tick(9);
            QVERIFY(rig.model->busy());
            rig.tick();
            QVERIFY(!rig.model->busy());
        }
        QCOMPARE(rig.hangUps, 1);
        QCOMPARE(rig.model->status(), QStringLiteral("Limite de 20 minutes atteinte"));
        QVERIFY(!rig.model->armed());
    }

    // Seen ringing at 1 s, answered at 4 s; the tick at 5 s sees sound flowing; the phone then
    // moves the devices: 1.5 s after answering the audio is reopened, then greeted. When
    // reopening fails, the call ends and the sound path must be proven again.
    void theCheckAfterAnsweringReopensTheAudio_data()
    {
        QTest::addColumn<bool>("fails");
        QTest::newRow("réouvert") << false;
        QTest::newRow("échec") << true;
    }
    void theCheckAfterAnsweringReopensTheAudio()
    {
        QFETCH(bool, fails);
        AppRig rig;
        QVERIFY(rig.arm());
        rig.ring();
        rig.tick(4);
        QVERIFY(rig.connected());
        rig.advance(1.4);
        rig.io->engines().first()->platformStopCapture();
        QVERIFY(rig.model->audio().needsRestart());
        const QString reopened = QStringLiteral("Circuits audio réouverts après le décrochage");
        QVERIFY(!logHas(*rig.model, reopened));
        for (std::uint32_t id : {kCallDevice, kVoiceDevice}) {
            if (fails)
                rig.io->device(id)->startError = QStringLiteral("Périphérique occupé");
        }
        rig.clock.advance(0.1);
        QCOMPARE(rig.model->busy(), !fails);
        QCOMPARE(rig.model->routingConfirmed(), !fails);
        if (fails) {
            QVERIFY(rig.model->error().startsWith(
                QStringLiteral("Audio interrompu après décrochage : ")));
            return;
        }
        QVERIFY(logHas(*rig.model, reopened));
        QCOMPARE(rig.model->audioRecoveryCount(), 0);
        QVERIFY(!rig.model->audio().needsRestart());
    }

    void theManagerSpeaksAloneAndTheAIIsToldAfterwards()
    {
        AppRig rig;
        QVERIFY(rig.armAndTakeCall());
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
        rig.server.sendEvent(S::responseCreated(QStringLiteral("resp_a")));
        QVERIFY(waitFor([&] { return !rig.sent(QStringLiteral("response.cancel")).isEmpty(); }));
        rig.server.sendEvent(S::aiTranscript(QStringLiteral("Je note.")));
        rig.server.sendEvent(S::responseDone(QStringLiteral("resp_a"), 5, 5));
        QVERIFY(rig.callerSays(QStringLiteral("Bonjour monsieur.")));
        // Caller turns create no response while the manager speaks: nothing billed unheard.
        QVERIFY(waitFor([&] {
            const QJsonObject update = rig.sent(QStringLiteral("session.update")).last();
            return S::turnsCreateResponses(update[QLatin1String("session")].toObject()) == false;
        }));
        rig.server.endCallerTurn();
        QCOMPARE(rig.server.turnResponses(), 0);
        QCOMPARE(rig.model->current()->transcript.size(), lines + 1);
        QCOMPARE(rig.model->current()->transcript.last().speaker, QStringLiteral("Interlocuteur"));

        // Given back: one short system message, and the AI speaks for itself again.
        rig.model->toggleIntervention();
        QVERIFY(!rig.model->intervening());
        QVERIFY(waitFor(
            [&] { return rig.sent(QStringLiteral("conversation.item.create")).size() == 1; }));
        const QJsonObject note = rig.sent(QStringLiteral("conversation.item.create")).first();
        rig.server.endCallerTurn();
        QCOMPARE(rig.server.turnResponses(), 1);
        QCOMPARE(note[QLatin1String("item")][QLatin1String("role")].toString(),
                 QStringLiteral("system"));
        rig.server.sendEvent(S::aiTranscript(QStringLiteral("Je reprends.")));
        QVERIFY(waitFor([&] {
            return rig.model->current()->transcript.last().text == QStringLiteral("Je reprends.");
        }));
        QVERIFY(rig.server.violations().isEmpty());
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
        rig.server.sendEvent(S::sessionUpdated());
        rig.advance(15);
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

        // Switched off: a wake-up leaves standby alone. The choice is kept.
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
        rig.model->addWindDownStep(2.0, [&](CallRecord&, const std::function<void()>&) {
            ran << QStringLiteral("premier");
            QVERIFY(rig.model->realtime().isOpen());
        });
        rig.model->addWindDownStep(1.0, [&](CallRecord& record, const std::function<void()>& done) {
            ran << QStringLiteral("second");
            record.note = QStringLiteral("note de fin");
            done();
            done(); // a second report changes nothing
        });
        QVERIFY(rig.armAndTakeCall());
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
        QVERIFY(rig.armAndTakeCall());
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
        if (pressesNeeded < 100) {
            QCOMPARE(presses, pressesNeeded);
            QVERIFY(rig.notifier->alerts().isEmpty());
            return;
        }
        // Bounded: given up, said, and no more presses.
        QVERIFY(rig.model->error().startsWith(QStringLiteral("Vemira n’a pas pu raccrocher")));
        QVERIFY(logHas(*rig.model, rig.model->error()));
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
        QVERIFY(rig.armAndTakeCall());
        rig.showActiveCall();
        rig.tick();
        rig.model->toggleIntervention();
        QVERIFY(rig.model->intervening());
        if (timeLimit) {
            rig.clock.advance(*rig.model->callStarted() + 1201 - rig.clock.uptime());
            rig.tick();
        } else {
            rig.server.sendEvent(S::error(QStringLiteral("session_expired")));
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
        QVERIFY(rig.ended());
        QCOMPARE(rig.hangUps, managerCloses ? 1 : 0);
        QCOMPARE(rig.model->status(), status);
        QCOMPARE(rig.model->records().size(), 1);
    }

    // The caller has left and the record is being completed: a failure now loses at most the
    // message, never the receptionist's standby.
    void anErrorDuringTheWindDownKeepsTheReceptionistOn()
    {
        AppRig rig;
        QVERIFY(rig.armAndTakeCall());
        QVERIFY(rig.callerSays(QStringLiteral("Jean Dupuis, une fuite au 12 rue des Lilas.")));
        rig.showActiveCall();
        rig.tick();
        rig.phoneIdle();
        rig.tick(5);
        QVERIFY(rig.messageRequested());
        rig.server.sendEvent(S::error(QStringLiteral("session_expired")));
        QVERIFY(rig.ended());
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
            const auto updates = [&] { return rig.sent(QStringLiteral("session.update")).size(); };
            const auto before = updates();
            QVERIFY(rig.takeCallWithoutReadyAI());
            QVERIFY(waitFor([&] { return updates() > before; }));
            rig.server.sendEvent(S::error(QStringLiteral("model_not_found")));
            QVERIFY(rig.ended());
            QCOMPARE(rig.answerButton->pressCount, 0);
        } else if (stop == u"wake") {
            rig.sleep->sleepNow();
            rig.server.behaviour().confirmSessions = false;
            rig.sleep->wakeNow();
            rig.clock.advance(15);
        } else {
            QVERIFY(rig.takeCall());
            rig.showActiveCall();
            if (stop == u"fail")
                rig.server.sendEvent(S::error(QStringLiteral("session_expired")));
            else
                rig.clock.advance(*rig.model->callStarted() + 1201 - rig.clock.uptime());
            QVERIFY(rig.ended(true));
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

QTEST_GUILESS_MAIN(CallLifecycleTest)
#include "tst_call_lifecycle.moc"
