// Whole calls played through the application model: fake phone window and devices, the
// real realtime client against a scripted server on loopback, time on a manual clock.

#include "AppRig.h"
#include "core/PlatformWording.h"
#include "records/CallRecord.h"
#include "records/Settings.h"

#include <QFileInfo>
#include <QSettings>
#include <QTest>
#include <cmath>

using namespace vemira;
using namespace vemira::testing;

namespace {

const QString kNoReadyMessage = QStringLiteral(
    "L’IA n’a pas répondu dans les 15 secondes. Aucun décrochage automatique effectué.");
const QString kNeedsCheck = QStringLiteral("Une vérification est nécessaire");
const QString kKept = QStringLiteral("La conversation est conservée sur ce Mac.");

QByteArray tonePCM(double seconds)
{
    QByteArray pcm;
    const int frames = static_cast<int>(seconds * 24000);
    pcm.resize(frames * 2);
    for (int i = 0; i < frames; ++i) {
        const auto s = static_cast<qint16>(8000 * std::sin(2 * M_PI * 440 * i / 24000.0));
        pcm[2 * i] = static_cast<char>(s & 0xff);
        pcm[2 * i + 1] = static_cast<char>((s >> 8) & 0xff);
    }
    return pcm;
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

        rig.server.sendEvent(ScriptedRealtimeServer::sessionUpdated());
        QVERIFY(waitFor([&] { return rig.model->connected(); }));
        QCOMPARE(rig.answerButton->pressCount, 1);
        QVERIFY(rig.bridgeRanAtAnswer);
        QVERIFY(rig.aiReadyAtAnswer);
        QCOMPARE(rig.model->status(), QStringLiteral("Conversation en cours"));
        QCOMPARE(rig.model->detail(),
                 QStringLiteral("Décrochage demandé · Enregistrement audio actif"));
        QVERIFY(rig.model->log().first().endsWith(QStringLiteral(" · Décrochage demandé")));

        // The greeting is asked for once the answered call had 1.5 s to settle.
        rig.clock.advance(1.4);
        QCoreApplication::processEvents();
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
        rig.server.sendEvent(
            ScriptedRealtimeServer::callerTranscript(QStringLiteral("J’ai une fuite d’eau.")));
        rig.server.sendEvent(ScriptedRealtimeServer::responseCreated(QStringLiteral("r1")));
        rig.server.sendEvent(ScriptedRealtimeServer::audioDelta(tonePCM(0.3)));
        rig.server.sendEvent(
            ScriptedRealtimeServer::aiTranscript(QStringLiteral("Depuis quand ?")));
        rig.server.sendEvent(ScriptedRealtimeServer::responseDone(QStringLiteral("r1"), 500, 300));
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
        QVERIFY(waitFor([&] { return !rig.model->busy(); }));
        QVERIFY(rig.model->log().first().endsWith(QStringLiteral(" · Message de l’appel reçu.")));
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

    void unansweredOrUnreadableMessageStillSavesTheCall()
    {
        AppRig rig;
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
        QVERIFY(rig.callerSays(QStringLiteral("Jean Dupuis, au 12 rue des Lilas.")));
        // The model never answers: the record waits no longer than the bound.
        rig.model->finish();
        QVERIFY(waitFor([&] {
            const auto asked = rig.server.eventsOfType(QStringLiteral("response.create"));
            return std::any_of(asked.begin(), asked.end(),
                               ScriptedRealtimeServer::isMessageRequest);
        }));
        // It starts an answer that never ends.
        rig.server.sendEvent(ScriptedRealtimeServer::responseCreated(QStringLiteral("r_msg")));
        QVERIFY(waitFor([&] { return rig.model->conversationUsage().pendingResponses == 1; }));
        rig.clock.advance(4.9);
        QCoreApplication::processEvents();
        QVERIFY(rig.model->busy());
        QCOMPARE(rig.model->records().first().progress, CallProgress::InProgress);
        rig.clock.advance(0.2);
        // Then that answer's bilan is waited for, as briefly, before the session closes.
        QVERIFY(rig.model->busy());
        rig.clock.advance(AppModel::kResponseSettle);
        QVERIFY(waitFor([&] { return !rig.model->busy(); }));
        QCOMPARE(rig.model->records().size(), 1);
        QVERIFY(!rig.model->records().first().message);
        QCOMPARE(rig.historyOnDisk().size(), 1);
        QVERIFY(rig.model->log().join(u'\n').contains(QStringLiteral(
            "Message de l’appel non reçu à temps : appel enregistré sans message.")));
        // The unfinished answer stays reserved in the estimate rather than forgotten.
        QCOMPARE(rig.model->records().first().usage->pendingResponses, 1);

        // A 1 MB field with extra keys: saved, bounded.
        rig.tick(9);
        rig.server.behaviour().messageArguments =
            QStringLiteral(R"({"problem":"%1","extra":[1]})").arg(QString(1 << 20, u'x'));
        QVERIFY(rig.takeCall());
        QVERIFY(rig.callerSays(QStringLiteral("Une fuite.")));
        rig.model->finish();
        QVERIFY(waitFor([&] { return !rig.model->busy(); }));
        QCOMPARE(rig.model->records().size(), 2);
        QCOMPARE(rig.model->records().first().message->problem.size(), CallMessage::maxFieldLength);
        QCOMPARE(rig.historyOnDisk().first(), rig.model->records().first());
        QVERIFY(rig.server.violations().isEmpty());
    }

    void theAIsTroublesReachTheRecordTheLogAndTheCost()
    {
        AppRig rig;
        // The call's message comes at once, so what follows waits only for the bilan.
        rig.server.behaviour().messageArguments = QStringLiteral(R"({"problem":"Fuite"})");
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
        using S = ScriptedRealtimeServer;
        const qsizetype lines = rig.model->current()->transcript.size();
        auto send = [&](const QList<QJsonObject>& events, qsizetype linesAfter) {
            for (const QJsonObject& event : events)
                rig.server.sendEvent(event);
            return waitFor([&] {
                return rig.model->current() &&
                       rig.model->current()->transcript.size() == lines + linesAfter;
            });
        };
        // A caller turn the provider could not transcribe, then an answer the caller cut:
        // the record keeps both, in spoken order, the cut line marked.
        QVERIFY(send({S::callerTranscript(QStringLiteral("Bonjour, c’est pour une fuite.")),
                      S::callerTranscriptFailed(QStringLiteral("item_2")),
                      S::responseCreated(QStringLiteral("r1")),
                      S::audioDelta(tonePCM(1.0), QStringLiteral("r1")),
                      S::aiTranscript(QStringLiteral("Je note. Quelle est votre adresse ?"),
                                      QStringLiteral("r1")),
                      S::responseDone(QStringLiteral("r1"), 500, 300), S::speechStarted(),
                      S::callerTranscript(QStringLiteral("Attendez…"))},
                     4));
        QCOMPARE(rig.speakers(*rig.model->current()).mid(lines),
                 (QStringList{QStringLiteral("Interlocuteur: Bonjour, c’est pour une fuite."),
                              QStringLiteral("Interlocuteur: [inaudible]"),
                              QStringLiteral("Vemira: Je note. Quelle est votre adresse ?…"),
                              QStringLiteral("Interlocuteur: Attendez…")}));

        // A response the provider could not produce is said in the log; the call goes on.
        rig.server.sendEvent(
            S::responseFailed(QStringLiteral("r2"), QStringLiteral("rate_limit_exceeded")));
        QVERIFY(waitFor([&] {
            return rig.model->log().first().endsWith(
                QStringLiteral(" · Réponse de l’IA en échec (rate_limit_exceeded) : l’IA n’a "
                               "rien dit pour ce tour."));
        }));
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
        QVERIFY(waitFor([&] { return !rig.model->busy(); }));
        const CallRecord first = rig.model->records().first();
        QCOMPARE(first.usage->pendingResponses, 0);
        QCOMPARE(first.usage->inputTokens, 500 + 1000 + rig.server.behaviour().messageInputTokens);
        QVERIFY(*first.usage->estimatedUSD < 0.5);

        // Next call: the bilan never comes; after the bound the provision is kept and said.
        rig.tick(9);
        QVERIFY(rig.takeCall());
        rig.server.sendEvent(S::responseCreated(QStringLiteral("r4")));
        QVERIFY(waitFor([&] { return rig.model->conversationUsage().pendingResponses == 1; }));
        rig.tick();
        QVERIFY(rig.model->sawActiveCall());
        rig.phoneIdle();
        rig.tick(5);
        QVERIFY(rig.model->busy());
        rig.clock.advance(AppModel::kResponseSettle);
        QVERIFY(waitFor([&] { return !rig.model->busy(); }));
        const CallRecord second = rig.model->records().first();
        QCOMPARE(second.usage->pendingResponses, 1);
        QVERIFY(second.usage->label().endsWith(QStringLiteral(" · provision en cours incluse")));
        QVERIFY(rig.model->log().join(u'\n').contains(
            QStringLiteral("Bilan de la dernière réponse non reçu : la provision reste comptée.")));

        // An account without credit can say nothing: the call ends like a server error.
        rig.tick(9);
        QVERIFY(rig.takeCall());
        rig.server.sendEvent(S::responseFailed(QStringLiteral("r5"),
                                               QStringLiteral("insufficient_quota"),
                                               QStringLiteral("insufficient_quota")));
        QVERIFY(waitFor([&] { return !rig.model->busy(); }));
        QVERIFY(!rig.model->armed());
        QCOMPARE(rig.model->status(), kNeedsCheck);
        QCOMPARE(rig.model->error(),
                 QStringLiteral("Crédit OpenAI épuisé : l’IA ne peut plus répondre. Ajoutez du "
                                "crédit ou vérifiez la facturation de votre compte OpenAI."));
        QCOMPARE(rig.model->records().size(), 3);
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
        QVERIFY(waitFor([&] { return rig.model->connected(); }));

        // Chosen during the call: the call still ends in the application that rang.
        rig.model->setPhoneApp(QStringLiteral("gnome-calls"));
        rig.showActiveCall();
        rig.model->finish();
        QVERIFY(waitFor([&] { return !rig.model->busy(); }, 10));
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
        QVERIFY(waitFor([&] { return rig.model->connected(); }));
        QCOMPARE(routing->routes,
                 (QList<QStringList>{{QStringLiteral("0"), kPhoneApp, BrelianDevices::callUID(),
                                      BrelianDevices::voiceUID(), QStringLiteral("1")}}));
        QVERIFY(rig.model->log()
                    .join(QLatin1Char('\n'))
                    .contains(QStringLiteral(" · Son du téléphone dirigé vers Vemira")));
        QCOMPARE(routing->releases, 0);

        rig.model->finish();
        QVERIFY(waitFor([&] { return !rig.model->busy(); }, 10));
        QCOMPARE(routing->releases, 1);
        QVERIFY(rig.model->log().first().endsWith(
            QStringLiteral(" · Son du téléphone rendu : 2 flux dirigés vers Vemira, 1 remis en "
                           "place, 1 fermés par le téléphone")));

        // Unreachable devices: said, and the conversation still runs.
        routing->failure = QStringLiteral("Les appareils audio virtuels « Brelian » sont "
                                          "introuvables : créez-les dans l’assistant de "
                                          "configuration.");
        rig.tick(9);
        rig.ring();
        routing->pressesAtRoute = &rig.answerButton->pressCount;
        rig.tick(4);
        QVERIFY(waitFor([&] { return rig.model->connected(); }));
        QVERIFY(rig.model->log().join(QLatin1Char('\n')).contains(*routing->failure));
        rig.model->finish();
        QVERIFY(waitFor([&] { return !rig.model->busy(); }, 10));
        QCOMPARE(routing->releases, 1); // nothing was routed, nothing to give back
    }

    void silentServerLeavesThePhoneRingingAndDisarms()
    {
        AppRig rig;
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCallWithoutReadyAI());
        QVERIFY(rig.callerSays(QStringLiteral("Allô ? Il y a quelqu’un ?")));

        rig.clock.advance(14.9);
        QCoreApplication::processEvents();
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
        QVERIFY(waitFor([&] { return rig.model->connected(); }));
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
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
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
        QVERIFY(waitFor([&] { return !rig.model->busy(); }));
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
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
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
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
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
        rig.clock.advance(3.0);
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
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
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
        QVERIFY(rig.model->log().first().endsWith(
            QStringLiteral(" · Micro du gestionnaire ouvert vers l’appelant")));

        rig.model->toggleIntervention();
        QVERIFY(!rig.model->intervening());
        QCOMPARE(rig.model->current()->transcript.last().text,
                 QStringLiteral("Fin de l’intervention du gestionnaire. Reprise de l’IA."));
        QVERIFY(rig.model->log().first().endsWith(
            QStringLiteral(" · Micro du gestionnaire fermé · reprise de l’IA")));

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

    void disarmingDuringACallLetsItFinish()
    {
        AppRig rig;
        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
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
};

QTEST_GUILESS_MAIN(CallLifecycleTest)
#include "tst_call_lifecycle.moc"
