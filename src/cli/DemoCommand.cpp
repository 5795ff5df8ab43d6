// `vemira demo`: the whole product on one machine, from nothing. A private audio server with
// the virtual call devices, a virtual display with its accessibility bus, a test softphone
// and a stand-in for the realtime service are started; Vemira is armed, the softphone rings,
// Vemira answers and takes the caller's message; then the saved record is shown and
// everything started is stopped again.
#include "Command.h"

#include <QtGlobal>

#ifdef Q_OS_LINUX
#include "DemoEnvironment.h"
#include "SessionLogPrinter.h"
#include "app/AppDependencies.h"
#include "app/AppModel.h"
#include "demo/DemoSoftphone.h"
#include "demo/PrivateNetwork.h"
#include "notify/AfterCallNotices.h"
#include "notify/MailAccount.h"
#include "phone/PhoneAutomation.h"
#include "records/APIKeyStore.h"
#include "records/DataFolder.h"
#include "records/Settings.h"
#include "records/TranscriptDocument.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QSaveFile>
#include <QTextStream>
#include <QTimer>
#include <algorithm>
#include <atomic>
#include <csignal>
#include <optional>
#include <sys/resource.h>
#include <time.h>

namespace vemira {

namespace {

constexpr double kDemoBudgetSeconds = 115;
const char* const kSoftphoneName = "Softphone de test";

qint64 monotonicNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return qint64(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

double cpuSecondsOfThisProcess()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Ctrl-C: the demonstration stops where it is and still stops everything it started (the
// audio daemon runs detached and would otherwise outlive it).
std::atomic<bool> g_interrupted{false};

extern "C" void interruptDemo(int)
{
    g_interrupted = true;
}

// Runs the event loop until `done` holds, the time is up or the user interrupts; false
// unless `done` held.
bool waitUntil(const std::function<bool()>& done, double seconds, bool interruptible = true)
{
    const QDeadlineTimer deadline(qint64(seconds * 1000));
    while (!done()) {
        if (deadline.hasExpired() || (interruptible && g_interrupted))
            return false;
        QEventLoop loop;
        QTimer::singleShot(50, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

QJsonObject readJson(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

// Added latency each way, from the marks the softphone and the stand-in left behind.
struct LatencyFigures {
    QList<double>
        callerToAI; // ms: caller sample handed to the audio server → its bytes at the stand-in
    QList<double>
        aiToCaller; // ms: the stand-in's first audio delta → its first sample at the softphone

    static LatencyFigures from(const QJsonObject& softphone, const QJsonObject& standin)
    {
        LatencyFigures figures;
        QJsonObject conversation;
        for (const QJsonValue session : standin.value(QStringLiteral("sessions")).toArray()) {
            if (session.toObject().contains(QStringLiteral("greetRequested")))
                conversation = session.toObject();
        }
        const QJsonArray spoken = softphone.value(QStringLiteral("callerLines")).toArray();
        const QJsonArray arrived = conversation.value(QStringLiteral("callerOnsets")).toArray();
        for (qsizetype i = 0; i < std::min(spoken.size(), arrived.size()); ++i) {
            // From the hand-over to the audio server: this includes the softphone's own playback
            // buffer, so it overstates Vemira's share a little rather than understate it.
            const double written = spoken.at(i)[QStringLiteral("onsetWritten")].toDouble();
            figures.callerToAI.append(
                (arrived.at(i)[QStringLiteral("arrived")].toDouble() - written) / 1e6);
        }
        const QJsonArray heard = softphone.value(QStringLiteral("heardStarts")).toArray();
        for (const QJsonValue response :
             conversation.value(QStringLiteral("responses")).toArray()) {
            // The line's first loud sample left the stand-in with the first delta, in effect.
            const double sent = response[QStringLiteral("firstDeltaSent")].toDouble() +
                                response[QStringLiteral("onsetSample")].toDouble() / 24000.0 * 1e9;
            for (const QJsonValue start : heard) {
                const double at = start[QStringLiteral("at")].toDouble();
                if (at >= sent - 5e6) {
                    figures.aiToCaller.append((at - sent) / 1e6);
                    break;
                }
            }
        }
        return figures;
    }

    static QString summary(const QList<double>& values)
    {
        if (values.isEmpty())
            return QStringLiteral("non mesurée");
        double sum = 0;
        for (double v : values)
            sum += v;
        const double worst = *std::max_element(values.begin(), values.end());
        return QStringLiteral("%1 ms en moyenne, %2 ms au plus (%3 mesures)")
            .arg(sum / double(values.size()), 0, 'f', 0)
            .arg(worst, 0, 'f', 0)
            .arg(values.size());
    }

    static QJsonArray json(const QList<double>& values)
    {
        QJsonArray array;
        for (double v : values)
            array.append(v);
        return array;
    }
};

class Demo {
public:
    // `phone`: a real softphone ("twinkle", "gnome-calls"), or empty for the test softphone.
    Demo(QString folder, QString phone, QTextStream& out)
        : m_folder(std::move(folder)), m_phone(std::move(phone)), m_out(out),
          m_environment(m_folder, [this](const QString& text) { say(text); })
    {
        m_clock.start();
    }

    int run(const QString& reportPath)
    {
        const int code = runScenario();
        m_report.insert(QStringLiteral("exitCode"), code);
        m_report.insert(QStringLiteral("folder"), m_folder);
        if (!reportPath.isEmpty()) {
            QSaveFile file(reportPath);
            if (file.open(QIODevice::WriteOnly)) {
                file.write(QJsonDocument(m_report).toJson());
                file.commit();
            }
        }
        return code;
    }

private:
    void say(const QString& text)
    {
        m_out << QStringLiteral("[%1 s] ").arg(double(m_clock.elapsed()) / 1000.0, 5, 'f', 1)
              << text << Qt::endl;
    }

    int failWith(const QString& message)
    {
        if (g_interrupted)
            return interrupted();
        m_out << QStringLiteral("Échec de la démonstration : ") << message << Qt::endl;
        m_report.insert(QStringLiteral("failure"), message);
        return 1;
    }

    int interrupted()
    {
        m_out << QStringLiteral("Démonstration interrompue.") << Qt::endl;
        m_report.insert(QStringLiteral("failure"), QStringLiteral("interrompue"));
        return 130;
    }

    double remaining() const { return kDemoBudgetSeconds - double(m_clock.elapsed()) / 1000.0; }

    int runScenario()
    {
        const QString softphone =
            findDemoProgram(QStringLiteral("vemira-test-softphone"), "VEMIRA_SOFTPHONE");
        const QString standin =
            findDemoProgram(QStringLiteral("vemira-realtime-standin"), "VEMIRA_STANDIN");
        // <build>/src/cli/vemira → <build>/src/demo/voices/caller.wav;
        // /usr/bin/vemira → /usr/share/vemira/voices/caller.wav
        m_callerWav = findDemoFile("VEMIRA_CALLER_WAV",
                                   {QStringLiteral("../demo/voices/caller.wav"),
                                    QStringLiteral("../share/vemira/voices/caller.wav")});
        if ((m_phone.isEmpty() ? softphone.isEmpty() : m_callerWav.isEmpty()) ||
            standin.isEmpty()) {
            return failWith(
                QStringLiteral("le softphone de test ou le service IA simulé est introuvable. "
                               "Construisez le projet avec espeak-ng, sox et libpulse-simple "
                               "(bash scripts/demo.sh)."));
        }
        say(QStringLiteral("Dossier de la démonstration : %1").arg(m_folder));
        if (Status failure = m_environment.start())
            return failWith(failure->message());
        m_environment.applyToThisProcess();

        const int code = runWithEnvironment(softphone, standin);
        if (code == 0)
            say(QStringLiteral("Démonstration réussie."));
        say(QStringLiteral("Arrêt de ce que la démonstration a démarré…"));
        m_environment.stop();
        return code;
    }

    int runWithEnvironment(const QString& softphoneProgram, const QString& standinProgram)
    {
        const QString standinMarks = QDir(m_folder).filePath(QStringLiteral("standin-marks.json"));
        const QString softphoneMarks =
            QDir(m_folder).filePath(QStringLiteral("softphone-marks.json"));
        m_report.insert(QStringLiteral("standinMarks"), standinMarks);
        m_report.insert(QStringLiteral("softphoneMarks"), softphoneMarks);

        say(QStringLiteral("Démarrage du service IA simulé (WebSocket local)…"));
        QProcess* standin = m_environment.spawn(
            standinProgram, {QStringLiteral("--marks"), standinMarks}, m_environment.environment());
        QByteArray banner;
        waitUntil(
            [&] {
                banner += standin->readAllStandardOutput();
                return banner.contains('\n') || standin->state() == QProcess::NotRunning;
            },
            10);
        const qsizetype at = banner.indexOf("LISTENING ");
        if (at < 0)
            return failWith(QStringLiteral("le service IA simulé n’a pas démarré."));
        const QByteArray url = banner.mid(at + 10).trimmed();
        qputenv("VEMIRA_REALTIME_URL", url);
        say(QStringLiteral("Service IA simulé à l’écoute sur %1").arg(QString::fromLatin1(url)));
        if (!m_phone.isEmpty())
            return runWithRealPhone();

        say(QStringLiteral("Démarrage du softphone de test…"));
        QProcessEnvironment phoneEnv = m_environment.environment();
        phoneEnv.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
        QProcess* softphone = m_environment.spawn(
            softphoneProgram,
            {QStringLiteral("--call-sink"), DemoEnvironment::callSink(),
             QStringLiteral("--voice-source"),
             DemoEnvironment::voiceSink() + QStringLiteral(".monitor"), QStringLiteral("--marks"),
             softphoneMarks, QStringLiteral("--recording"),
             QDir(m_folder).filePath(QStringLiteral("softphone-heard.raw")),
             QStringLiteral("--ring-on-stdin")},
            phoneEnv);

        const QString dataFolder = QDir(m_folder).filePath(QStringLiteral("Brelian"));
        const QString settingsFile = QDir(m_folder).filePath(QStringLiteral("vemira.ini"));
        if (Status failure = prepareVemira(dataFolder, settingsFile))
            return failWith(failure->message());
        m_report.insert(QStringLiteral("dataFolder"), dataFolder);

        // Vemira itself, with the platform's real parts, in this process.
        qputenv("VEMIRA_PHONE_APPS", kSoftphoneName);
        AppDependencies deps = createPlatformDependencies();
        // The private desktop has no notification daemon to show anything.
        deps.notifier.reset();
        deps.dataFolder = dataFolder;
        deps.settingsFile = settingsFile;
        if (!deps.phoneApplications.contains(QLatin1String(kSoftphoneName)))
            deps.phoneApplications.append(QLatin1String(kSoftphoneName));
        AppModel model(std::move(deps));
        SessionLogPrinter printer(model, m_out, QStringLiteral("        Vemira · "));
        return converse(model, QString::fromLatin1(kSoftphoneName),
                        [softphone, this]() -> Status {
                            if (softphone->state() != QProcess::Running)
                                return AppError(
                                    QStringLiteral("le softphone de test s’est arrêté (voir %1).")
                                        .arg(m_folder));
                            say(QStringLiteral("Le softphone de test sonne…"));
                            softphone->write("ring\n");
                            return std::nullopt;
                        },
                        {});
    }

    // A real softphone answering a real SIP call: Vemira finds it through AT-SPI, routes its
    // audio streams through the virtual devices and back, and the caller hangs up after its
    // goodbye.
    int runWithRealPhone()
    {
        DemoSoftphone phone(m_phone, QDir(m_folder).filePath(QStringLiteral("softphone")),
                            m_environment.environment());
        say(QStringLiteral("Démarrage de %1 (softphone réel, en français)…")
                .arg(phone.displayName()));
        if (Status failure = phone.start())
            return failWith(failure->message());
        say(QStringLiteral("Démarrage de l’appelant SIP « Jean Test » (baresip)…"));
        if (Status failure = phone.startCaller(m_callerWav, DemoEnvironment::deskSink()))
            return failWith(failure->message());
        m_report.insert(QStringLiteral("phone"), m_phone);

        const QString dataFolder = QDir(m_folder).filePath(QStringLiteral("Brelian"));
        const QString settingsFile = QDir(m_folder).filePath(QStringLiteral("vemira.ini"));
        if (Status failure = prepareVemira(dataFolder, settingsFile))
            return failWith(failure->message());
        m_report.insert(QStringLiteral("dataFolder"), dataFolder);
        AppDependencies deps = createPlatformDependencies();
        deps.notifier.reset();
        deps.dataFolder = dataFolder;
        deps.settingsFile = settingsFile;
        if (!deps.phoneApplications.contains(phone.applicationName()))
            deps.phoneApplications.append(phone.applicationName());
        AppModel model(std::move(deps));
        SessionLogPrinter printer(model, m_out, QStringLiteral("        Vemira · "));

        const QString callPlace = DemoEnvironment::callSink();
        const QString voicePlace = DemoEnvironment::voiceSink() + QStringLiteral(".monitor");
        bool speakerRouted = false;
        bool microphoneRouted = false;
        const int code = converse(
            model, phone.displayName(),
            [&]() -> Status {
                say(QStringLiteral("« Jean Test » appelle %1 (SIP sur la boucle locale)…")
                        .arg(phone.displayName()));
                return phone.dial();
            },
            [&] {
                const QStringList places = phone.streamPlaces();
                speakerRouted = speakerRouted || places.contains(callPlace);
                microphoneRouted = microphoneRouted || places.contains(voicePlace);
            });
        if (code != 0 || m_leftRinging)
            return code;

        const QStringList after = phone.streamPlaces();
        const bool back = !after.contains(callPlace) && !after.contains(voicePlace);
        const bool hungUp = phone.callerHungUp();
        QString digits = model.records().isEmpty() ? QString() : model.records().first().caller;
        digits.remove(QRegularExpression(QStringLiteral("[^0-9]")));
        const bool numberKept = digits.contains(QLatin1String("0612345678"));
        auto yes = [](bool b) { return b ? QStringLiteral("oui") : QStringLiteral("NON"); };
        m_out << QStringLiteral("Numéro de l’appelant dans la fiche : ") << yes(numberKept)
              << Qt::endl
              << QStringLiteral("Son de %1 dirigé vers Vemira pendant l’appel : haut-parleur %2, "
                                "micro %3")
                     .arg(phone.displayName(), yes(speakerRouted), yes(microphoneRouted))
              << Qt::endl
              << QStringLiteral("Plus aucun flux de %1 sur les appareils Brelian après l’appel : ")
                     .arg(phone.displayName())
              << yes(back) << Qt::endl
              << QStringLiteral("Appel raccroché à la fin : ") << yes(hungUp) << Qt::endl;
        const QString ring = nextRing(model, phone);
        const bool ringUsual = ring == DemoEnvironment::deskSink();
        m_out << QStringLiteral("Appel suivant, Vemira désactivé : %1 sonne sur %2, la sortie "
                                "habituelle : %3")
                     .arg(phone.displayName(),
                          ring.isEmpty() ? QStringLiteral("aucune sortie")
                                         : QStringLiteral("« %1 »").arg(ring),
                          yes(ringUsual))
              << Qt::endl;
        m_report.insert(QStringLiteral("nextRingOnUsualOutput"), ringUsual);
        m_report.insert(QStringLiteral("callerNumberKept"), numberKept);
        m_report.insert(QStringLiteral("speakerRouted"), speakerRouted);
        m_report.insert(QStringLiteral("microphoneRouted"), microphoneRouted);
        m_report.insert(QStringLiteral("streamsBack"), back);
        m_report.insert(QStringLiteral("hungUp"), hungUp);
        if (!numberKept || !speakerRouted || !microphoneRouted || !back || !hungUp || !ringUsual)
            return failWith(QStringLiteral("une des vérifications ci-dessus a échoué."));
        return 0;
    }

    // Vemira off, the caller rings again and nobody answers: where the ring plays. After a
    // call a sound server may still send the softphone's streams to the virtual device it
    // last saw them moved to, and the owner would no longer hear the phone.
    QString nextRing(AppModel& model, DemoSoftphone& phone)
    {
        if (model.armed())
            model.toggleArmed();
        waitUntil([&] { return !model.armed() && phone.streamPlaces().isEmpty(); }, 10);
        say(QStringLiteral("Vemira désactivé, « Jean Test » rappelle %1 et personne ne répond…")
                .arg(phone.displayName()));
        if (Status failure = phone.dial()) {
            say(failure->message());
            return {};
        }
        QString place;
        waitUntil(
            [&] {
                place = phone.streamPlaces().value(0);
                return !place.isEmpty();
            },
            8);
        if (Status failure = phone.hangUp())
            say(failure->message());
        if (place.isEmpty()) {
            say(QStringLiteral("%1 ne joue pas sa sonnerie ici : un flux du même nom et du même "
                               "rôle que les siens en tient lieu.")
                    .arg(phone.displayName()));
            place = phone.placeOfItsNextStream();
        }
        return place;
    }

    // What a user sets once in the interface: the virtual devices, the business, a key.
    static Status prepareVemira(const QString& dataFolder, const QString& settingsFile)
    {
        Settings settings(settingsFile);
        Settings::Group group = settings.group();
        group.inputUID = DemoEnvironment::callSink();
        group.outputUID = DemoEnvironment::voiceSink();
        group.company = QStringLiteral("Plomberie Martin");
        settings.saveGroup(group);
        settings.setRecordingEnabled(true);
        // The stand-in accepts any key; a real one never leaves the provider's account.
        if (Status failure = LocalKeyStore(DataFolder(dataFolder).credentialsFolder())
                                 .save(QStringLiteral("sk-demonstration-locale")))
            return failure;
        settings.setKeySaved(true);
        // The owner's e-mail after each call, when they set one up: the demonstration's call
        // is mailed like a real one.
        if (const std::optional<Settings::Mail> mail = Settings().mail()) {
            auto password = mailPasswordStore(DataFolder::standard()).read();
            if (password && password.value()) {
                if (Status failure =
                        mailPasswordStore(DataFolder(dataFolder)).save(*password.value()))
                    return failure;
            }
            settings.setMail(mail);
        }
        // And the owner's answering rules: a reserved number is left ringing here too.
        settings.setAnsweringRules(Settings().answeringRules());
        settings.sync();
        return std::nullopt;
    }

    // `ring` makes the phone ring once Vemira is armed; `duringCall` runs about once a second
    // while the conversation is under way.
    int converse(AppModel& model, const QString& phoneName, const std::function<Status()>& ring,
                 const std::function<void()>& duringCall)
    {
        // The softphone plays into and listens on the virtual devices by construction: that is
        // the audio routing the guided setup would have confirmed.
        model.setRoutingConfirmed(true);
        say(QStringLiteral("Activation du standard (vérifications et connexion IA)…"));
        model.toggleArmed();
        if (!waitUntil(
                [&] { return model.armed() || (!model.error().isEmpty() && !model.checkingAI()); },
                20) ||
            !model.armed()) {
            return failWith(model.error().isEmpty()
                                ? QStringLiteral("le standard ne s’est pas activé.")
                                : model.error());
        }
        say(model.status() + QStringLiteral(" — ") + model.detail());

        // Give the softphone's window time to appear on the accessibility bus.
        waitUntil([] { return false; }, 1.5);
        if (Status failure = ring())
            return failWith(failure->message());

        const auto leftRinging = [&model] {
            const QStringList log = model.log();
            return std::any_of(log.cbegin(), log.cend(), [](const QString& line) {
                return line.contains(QStringLiteral(" laissé sonner : "));
            });
        };
        // The owner's rules may let it ring up to a minute before the AI is called.
        const double ringing =
            model.answeringRules().decide(QString(), QDateTime::currentDateTime()).ringSeconds;
        if (!waitUntil([&] { return model.busy() || leftRinging(); }, ringing + 17)) {
            // A softphone that never reached the accessibility bus cannot be seen ringing.
            if (!model.phone().anyApplicationVisible())
                return failWith(QStringLiteral("Vemira n’a pas pris l’appel de %1 : %1 n’est "
                                               "jamais apparu sur le bus d’accessibilité "
                                               "(AT-SPI) de l’écran virtuel (voir %2).")
                                    .arg(phoneName, m_folder));
            return failWith(QStringLiteral("Vemira n’a pas pris l’appel de %1.").arg(phoneName));
        }
        if (!model.busy())
            return leaveRinging(model);
        say(QStringLiteral("%1 — %2").arg(model.status(), model.detail()));
        if (!waitUntil([&] { return model.connected() || !model.busy(); }, 20) ||
            !model.connected())
            return failWith(model.error().isEmpty()
                                ? QStringLiteral("la conversation n’a pas démarré.")
                                : model.error());
        // When the call's record first reached the history: the end of the caller's wait, in
        // effect, measured against the softphone's hang-up.
        QObject::connect(&model, &AppModel::recordsChanged, &model, [this, &model] {
            if (m_savedNs == 0 && !model.records().isEmpty())
                m_savedNs = monotonicNs();
        });
        const double cpuStart = cpuSecondsOfThisProcess();
        const qint64 wallStart = monotonicNs();
        say(QStringLiteral("Appel décroché, conversation en cours…"));

        // Progress: each transcript line as it is added, and the usage counter when it moves.
        qsizetype shownLines = 0;
        QString shownUsage;
        QElapsedTimer sinceLook;
        sinceLook.start();
        const bool ended = waitUntil(
            [&] {
                if (duringCall && model.busy() && sinceLook.elapsed() >= 1000) {
                    duringCall();
                    sinceLook.restart();
                }
                if (model.current()) {
                    const QList<TranscriptLine>& lines = model.current()->transcript;
                    for (; shownLines < lines.size(); ++shownLines)
                        say(lines.at(shownLines).speaker + QStringLiteral(" : ") +
                            lines.at(shownLines).text);
                }
                const QString usage = model.conversationUsage().label();
                if (model.busy() && usage != shownUsage) {
                    shownUsage = usage;
                    say(QStringLiteral("Consommation : ") + usage);
                }
                return !model.busy();
            },
            std::max(5.0, remaining() - 10));
        const double cpuSeconds = cpuSecondsOfThisProcess() - cpuStart;
        const double wallSeconds = double(monotonicNs() - wallStart) / 1e9;
        if (!ended) {
            // What was said so far is kept, as in any conversation ended early.
            model.finish();
            waitUntil([&] { return model.finalizingRecordings().isEmpty(); }, 10, false);
            return failWith(QStringLiteral("la conversation ne s’est pas terminée à temps."));
        }
        say(QStringLiteral(
            "Conversation terminée, enregistrement audio en cours de finalisation…"));
        waitUntil([&] { return model.finalizingRecordings().isEmpty(); }, 10, false);
        waitForMail(model);
        return present(model, cpuSeconds, wallSeconds);
    }

    // The owner's rules keep this call for the owner: it rings on, untouched, and leaves no
    // record. Watched a few seconds past the time Vemira would have taken it.
    int leaveRinging(AppModel& model)
    {
        m_leftRinging = true;
        m_report.insert(QStringLiteral("leftRinging"), true);
        say(QStringLiteral("Vemira laisse sonner l’appel, comme le veulent les règles du gérant…"));
        waitUntil([&] { return model.busy(); }, AnsweringRules::kShortestRing + 5);
        if (model.busy())
            return failWith(QStringLiteral("Vemira a pris un appel qu’il devait laisser sonner."));
        if (!model.records().isEmpty())
            return failWith(QStringLiteral("un appel laissé sonner a été enregistré."));
        m_out << QStringLiteral("Appel laissé sonner, aucune conversation enregistrée.")
              << Qt::endl;
        return g_interrupted ? interrupted() : 0;
    }

    // The after-call e-mail's first attempt (its line reaches the session log printed above);
    // a later retry is not waited for.
    void waitForMail(AppModel& model)
    {
        if (model.records().isEmpty() || model.afterCallNotices().mailQueue().pending() == 0)
            return;
        say(QStringLiteral("Envoi de l’e-mail de l’appel au gérant…"));
        const QString tag =
            QStringLiteral("E-mail de l’appel ") + model.records().first().reference();
        waitUntil(
            [&] {
                return std::any_of(model.log().cbegin(), model.log().cend(),
                                   [&tag](const QString& line) { return line.contains(tag); });
            },
            40, false);
    }

    int present(AppModel& model, double cpuSeconds, double wallSeconds)
    {
        if (model.records().isEmpty())
            return failWith(QStringLiteral("aucune conversation n’a été enregistrée."));
        const CallRecord& record = model.records().first();
        const QLocale french(QLocale::French, QLocale::France);
        m_out << Qt::endl
              << QStringLiteral("──── Transcription enregistrée ────") << Qt::endl
              << transcriptDocument(record, french) << Qt::endl
              << QStringLiteral("───────────────────────────────────") << Qt::endl;
        const QString usage =
            record.usage ? record.usage->label() : QStringLiteral("aucune consommation relevée");
        m_out << QStringLiteral("Consommation : ") << usage << Qt::endl;
        const QString recording =
            record.recordingFile ? QDir(model.recordingsFolder()).filePath(*record.recordingFile)
                                 : QString();
        if (!recording.isEmpty())
            m_out << QStringLiteral("Enregistrement : ") << recording << Qt::endl;
        else
            m_out << QStringLiteral("Enregistrement : ")
                  << record.recordingError.value_or(QStringLiteral("aucun")) << Qt::endl;

        reportEndOfCall();

        const LatencyFigures latency = LatencyFigures::from(
            readJson(m_report.value(QStringLiteral("softphoneMarks")).toString()),
            readJson(m_report.value(QStringLiteral("standinMarks")).toString()));
        const double cpuShare = wallSeconds > 0 ? cpuSeconds / wallSeconds * 100.0 : 0;
        // Only our test softphone stamps what it sends and hears; a real one gives no marks.
        const auto latencyText = [this](const QList<double>& values) {
            return values.isEmpty() && !m_phone.isEmpty()
                       ? QStringLiteral("non mesurée avec un softphone réel (seul le softphone de "
                                        "test horodate ce qu’il envoie et entend)")
                       : LatencyFigures::summary(values);
        };
        m_out
            << QStringLiteral("Latence ajoutée, appelant → IA : ")
            << latencyText(latency.callerToAI) << Qt::endl
            << QStringLiteral("Latence ajoutée, IA → appelant : ")
            << latencyText(latency.aiToCaller) << Qt::endl
            << QStringLiteral(
                   "Processeur utilisé par Vemira pendant l’appel : %1 % d’un cœur (%2 s sur %3 s)")
                   .arg(cpuShare, 0, 'f', 1)
                   .arg(cpuSeconds, 0, 'f', 2)
                   .arg(wallSeconds, 0, 'f', 1)
            << Qt::endl;

        m_report.insert(QStringLiteral("recordId"), uuidText(record.id));
        m_report.insert(QStringLiteral("recording"), recording);
        m_report.insert(QStringLiteral("usageLabel"), usage);
        m_report.insert(QStringLiteral("cpuSeconds"), cpuSeconds);
        m_report.insert(QStringLiteral("callSeconds"), wallSeconds);
        m_report.insert(QStringLiteral("cpuPercentOfOneCore"), cpuShare);
        m_report.insert(QStringLiteral("callerToAIms"), LatencyFigures::json(latency.callerToAI));
        m_report.insert(QStringLiteral("aiToCallerMs"), LatencyFigures::json(latency.aiToCaller));
        if (g_interrupted)
            return interrupted();
        return 0;
    }

    // From the caller's hang-up to the record saved, and the message's share of it.
    void reportEndOfCall()
    {
        const QJsonObject softphone =
            readJson(m_report.value(QStringLiteral("softphoneMarks")).toString());
        QJsonObject conversation;
        for (const QJsonValue session :
             readJson(m_report.value(QStringLiteral("standinMarks")).toString())
                 .value(QStringLiteral("sessions"))
                 .toArray()) {
            if (session.toObject().contains(QStringLiteral("greetRequested")))
                conversation = session.toObject();
        }
        const double hungUp = softphone.value(QStringLiteral("hungUp")).toDouble();
        const double asked = conversation.value(QStringLiteral("messageRequested")).toDouble();
        const double answered = conversation.value(QStringLiteral("messageAnswered")).toDouble();
        const double closed = conversation.value(QStringLiteral("closed")).toDouble();
        if (hungUp > 0 && m_savedNs > 0) {
            const double total = (double(m_savedNs) - hungUp) / 1e6;
            m_out << QStringLiteral("Du raccroché de l’appelant à l’appel enregistré : %1 ms")
                         .arg(total, 0, 'f', 0)
                  << Qt::endl;
            m_report.insert(QStringLiteral("hangUpToSavedMs"), total);
        }
        if (asked > 0 && closed > 0) {
            const double wait = (closed - asked) / 1e6;
            m_out << QStringLiteral("Message demandé au modèle : %1 ms de la demande à la "
                                    "fermeture de la session (réponse en %2 ms)")
                         .arg(wait, 0, 'f', 0)
                         .arg(answered > 0 ? (answered - asked) / 1e6 : -1.0, 0, 'f', 0)
                  << Qt::endl;
            m_report.insert(QStringLiteral("messageRequestToCloseMs"), wait);
        }
    }

    QString m_folder;
    QString m_phone;
    QString m_callerWav;
    QTextStream& m_out;
    qint64 m_savedNs = 0;
    bool m_leftRinging = false;
    QElapsedTimer m_clock;
    DemoEnvironment m_environment;
    QJsonObject m_report;
};

} // namespace

static int runInPrivateNetwork(const QStringList& arguments)
{
    QProcess inside;
    inside.setProcessChannelMode(QProcess::ForwardedChannels);
    inside.setInputChannelMode(QProcess::ForwardedInputChannel);
    // Ctrl-C reaches the demonstration inside, which stops what it started: wait for it.
    std::signal(SIGINT, SIG_IGN);
    inside.start(QStringLiteral("unshare"),
                 QStringList{QStringLiteral("-n"), QStringLiteral("--"), QStringLiteral("sh"),
                             QStringLiteral("-c"),
                             QStringLiteral("ip link set lo up && exec \"$0\" \"$@\""),
                             QCoreApplication::applicationFilePath(), QStringLiteral("demo")} +
                     arguments);
    if (!inside.waitForStarted(10000) || !inside.waitForFinished(-1) ||
        inside.exitStatus() != QProcess::NormalExit)
        return cli::fail(QStringLiteral(
            "Impossible d’ouvrir un réseau privé pour le softphone (unshare -n, droits root, "
            "paquets util-linux et iproute2)."));
    return inside.exitCode();
}

int runDemoCommand(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Démonstration complète de Vemira sur cette machine"));
    const QCommandLineOption folder(
        QStringLiteral("folder"),
        QStringLiteral("Dossier de travail (par défaut : un nouveau dossier temporaire)."),
        QStringLiteral("dir"));
    const QCommandLineOption report(QStringLiteral("report"),
                                    QStringLiteral("Fichier JSON où écrire le bilan chiffré."),
                                    QStringLiteral("file"));
    const QCommandLineOption phone(
        QStringLiteral("phone"),
        QStringLiteral("Softphone réel à la place du softphone de test : twinkle ou gnome-calls."),
        QStringLiteral("softphone"));
    const QCommandLineOption soundServer(
        QStringLiteral("sound-server"),
        QStringLiteral("Serveur de son privé à démarrer : pulseaudio (par défaut) ou pipewire."),
        QStringLiteral("server"));
    parser.addOptions({folder, report, phone, soundServer});
    QStringList withProgram = arguments;
    withProgram.prepend(QStringLiteral("vemira demo"));
    if (!parser.parse(withProgram) || !parser.positionalArguments().isEmpty())
        return cli::fail(
            parser.errorText().isEmpty()
                ? QStringLiteral("Usage : vemira demo [--phone twinkle|gnome-calls] "
                                 "[--sound-server pulseaudio|pipewire] [--folder DOSSIER] "
                                 "[--report FICHIER]")
                : parser.errorText(),
            cli::UsageError);
    const QString realPhone = parser.value(phone);
    if (!realPhone.isEmpty() && !DemoSoftphone::known(realPhone))
        return cli::fail(
            QStringLiteral("Softphone inconnu : %1 (twinkle ou gnome-calls).").arg(realPhone),
            cli::UsageError);
    if (parser.isSet(soundServer)) {
        const QString server = parser.value(soundServer);
        if (server != QLatin1String("pulseaudio") && server != QLatin1String("pipewire"))
            return cli::fail(
                QStringLiteral("Serveur de son inconnu : %1 (pulseaudio ou pipewire).").arg(server),
                cli::UsageError);
        // Read by the sound server's start script, here and inside the private network.
        qputenv("VEMIRA_SOUND_SERVER", server.toUtf8());
    }
    // SIP ports are fixed and GNOME Calls binds every address: a real softphone runs in a
    // network of its own that holds only the loopback, entered by starting again inside it.
    if (!realPhone.isEmpty() && !inPrivateNetwork())
        return runInPrivateNetwork(arguments);
    QString dir = parser.value(folder);
    if (dir.isEmpty()) {
        dir = QDir::temp().filePath(
            QStringLiteral("vemira-demo-") +
            QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-hhmmss")));
    }
    std::signal(SIGINT, interruptDemo);
    std::signal(SIGTERM, interruptDemo);
    Demo demo(QDir(dir).absolutePath(), realPhone, cli::out());
    return demo.run(parser.value(report));
}

#else

namespace vemira {

int runDemoCommand(const QStringList&)
{
    return cli::fail(QStringLiteral("La démonstration complète n’existe que sous Linux."));
}

#endif // Q_OS_LINUX

namespace cli {

void registerDemoCommands(CommandTable& table)
{
    table.add(
        {QStringLiteral("demo"),
         QStringLiteral("[--phone twinkle|gnome-calls] [--sound-server pulseaudio|pipewire] "
                        "[--folder DOSSIER] [--report FICHIER]"),
         QStringLiteral(
             "Démonstration complète : un appel de test pris par Vemira, de bout en bout"),
         QStringLiteral(
             "Démarre ce qui manque (PulseAudio ou PipeWire et les appareils virtuels, un écran\n"
             "Xvfb, D-Bus et le bus d’accessibilité, un softphone de test, un service IA simulé),\n"
             "active le "
             "standard, fait sonner le softphone et suit la conversation. À la fin : la\n"
             "transcription enregistrée, la consommation, le chemin de l’enregistrement audio et\n"
             "les mesures de latence et de processeur ; tout ce qui a été démarré est arrêté.\n"
             "Rien de votre session ni de vos appels n’est touché : tout reste dans DOSSIER.\n"
             "Votre e-mail après chaque appel et vos règles de réponse (vemira rules) "
             "s’appliquent :\n"
             "un numéro réservé (0612345678 pour l’appelant de la démonstration) est laissé\n"
             "sonner, sans conversation enregistrée.\n\n"
             "  --phone SOFTPHONE  un vrai softphone (twinkle, gnome-calls) appelé en SIP sur la\n"
             "                     boucle locale par « Jean Test » (baresip), dans un réseau\n"
             "                     privé (droits root) ; à la fin il rappelle, Vemira désactivé, "
             "et\n"
             "                     la sonnerie doit jouer sur la sortie habituelle\n"
             "  --sound-server SERVEUR  pulseaudio (par défaut) ou pipewire (avec WirePlumber et\n"
             "                     pipewire-pulse, comme sur Debian 12, Ubuntu et Fedora)\n"
             "  --folder DOSSIER   dossier de travail (par défaut : un nouveau dossier "
             "temporaire)\n"
             "  --report FICHIER   bilan chiffré au format JSON"),
         &runDemoCommand});
}

namespace {
const CommandRegistrar registrar(&registerDemoCommands);
} // namespace

} // namespace cli

} // namespace vemira
