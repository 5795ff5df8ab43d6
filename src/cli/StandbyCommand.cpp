// `vemira standby`: the receptionist without a window. It arms itself after the usual checks,
// answers the calls of the softphone found through the accessibility bus, prints the session
// log as it goes, and on Ctrl-C ends any conversation cleanly, its record saved.
#include "Command.h"
#include "SessionLogPrinter.h"
#include "app/AppDependencies.h"
#include "app/AppModel.h"
#include "app/SessionLogFile.h"
#include "audio/SoundDevice.h"
#include "audio/VirtualAudioDevices.h"
#include "phone/SoftphoneProfile.h"
#include "records/CallRecord.h"
#include "records/InstanceLock.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>
#include <QTimer>
#include <atomic>
#include <csignal>

namespace vemira {

namespace {

std::atomic<bool> g_stopRequested{false};

extern "C" void requestStop(int)
{
    g_stopRequested = true;
}

// Without the interface's guided setup, the phone circuit is the virtual device pair. Where
// Vemira makes the devices itself (Linux), missing ones are made for this session only: keeping
// them across restarts is the user's choice, in the guided setup.
void chooseVirtualDevices(AppModel& model, QTextStream& out)
{
    model.refresh();
    auto pair = BrelianDevices::pair(model.devices());
    const std::unique_ptr<VirtualAudioDevices> maker = createPlatformVirtualAudioDevices();
    if (!pair && maker) {
        if (Status failed = maker->create()) {
            out << failed->message() << Qt::endl;
        } else {
            out << QStringLiteral("Appareils audio virtuels « Brelian » créés pour cette session "
                                  "(l’assistant de configuration de l’application peut les "
                                  "conserver au redémarrage).")
                << Qt::endl;
            model.refresh();
            pair = BrelianDevices::pair(model.devices());
        }
    }
    if (!pair) {
        out << QStringLiteral("Les appareils audio virtuels « Brelian » sont introuvables : "
                              "créez-les dans l’assistant de configuration de l’application.")
            << Qt::endl;
        return;
    }
    if (model.inputUID().isEmpty() || model.outputUID().isEmpty()) {
        model.setInputUID(pair->call.uid);
        model.setOutputUID(pair->voice.uid);
        model.saveSettings();
    }
    if (model.inputUID() == pair->call.uid && model.outputUID() == pair->voice.uid)
        model.setRoutingConfirmed(true);
    out << (maker
                ? QStringLiteral("Circuit d’appel : à chaque appel, le son du softphone est dirigé "
                                 "vers « %1 » et son micro vers « %2 », puis rendu.")
                : QStringLiteral("Circuit d’appel : le softphone joue l’appel vers « %1 » et "
                                 "prend « %2 » comme micro."))
               .arg(pair->call.name, pair->voice.name)
        << Qt::endl;
}

} // namespace

int runStandbyCommand(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Standard Vemira sans fenêtre"));
    const QCommandLineOption phoneApp(
        QStringLiteral("phone-app"),
        QStringLiteral("Application de téléphonie à surveiller (twinkle, gnome-calls ou un nom)."),
        QStringLiteral("name"));
    parser.addOption(phoneApp);
    QStringList withProgram = arguments;
    withProgram.prepend(QStringLiteral("vemira standby"));
    if (!parser.parse(withProgram) || !parser.positionalArguments().isEmpty())
        return cli::fail(parser.errorText().isEmpty()
                             ? QStringLiteral("Usage : vemira standby [--phone-app NOM]…")
                             : parser.errorText(),
                         cli::UsageError);
    QTextStream& out = cli::out();

    // Before anything else: a second receptionist must not even open the history.
    auto instance = InstanceLock::acquire(DataFolder::standard(), QStringLiteral("vemira standby"));
    if (!instance)
        return cli::fail(instance.error().message());

    AppDependencies deps = createPlatformDependencies();
    // A known softphone by its name, or any other application under the standard rules;
    // without the option, the one chosen in the application, else every known softphone.
    if (parser.isSet(phoneApp)) {
        deps.phoneApplicationsChosen = true;
        deps.phoneApplications.clear();
        for (const QString& name : parser.values(phoneApp)) {
            for (const QString& id : softphones::applicationsOf(softphones::chosen(name))) {
                if (!deps.phoneApplications.contains(id, Qt::CaseInsensitive))
                    deps.phoneApplications.append(id);
            }
        }
    }
    AppModel model(std::move(deps));
    // What the start-up already said (no softphone in sight, a history file unread).
    const QStringList atStart = model.log();
    for (qsizetype i = atStart.size() - 1; i >= 0; --i)
        out << atStart.at(i) << Qt::endl;
    SessionLogPrinter printer(model, out);
    SessionLogFile logFile(model, LogFile(LogFile::standardFolder()));
    chooseVirtualDevices(model, out);

    out << QStringLiteral("Vérifications et connexion IA…") << Qt::endl;
    model.toggleArmed();

    std::signal(SIGINT, requestStop);
    std::signal(SIGTERM, requestStop);
    int exitCode = 0;
    bool wasArmed = false;
    bool stopping = false;
    // The call's progress as the main window would show it, and each record once saved.
    QString shownState;
    QObject::connect(&model, &AppModel::detailChanged, &model, [&] {
        const QString state = model.status() + QStringLiteral(" — ") + model.detail();
        if (wasArmed && state != shownState) {
            shownState = state;
            out << state << Qt::endl;
        }
    });
    QUuid lastRecord = model.records().isEmpty() ? QUuid() : model.records().first().id;
    QObject::connect(&model, &AppModel::recordsChanged, &model, [&] {
        // The call's record is in the history from the answer on; it is told once ended.
        if (model.records().isEmpty() || model.records().first().id == lastRecord ||
            model.records().first().progress == CallProgress::InProgress)
            return;
        const CallRecord& record = model.records().first();
        lastRecord = record.id;
        out << QStringLiteral("Fiche enregistrée : %1 · %2 · %3 ligne(s) de transcription")
                   .arg(record.reference(), record.phoneLabel())
                   .arg(record.transcript.size());
        if (record.usage)
            out << QStringLiteral(" · ") << record.usage->label();
        out << Qt::endl;
    });

    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, &model, [&] {
        if (model.armed() && !wasArmed) {
            wasArmed = true;
            shownState = model.status() + QStringLiteral(" — ") + model.detail();
            out << shownState << Qt::endl;
        }
        // A failed check leaves nothing to wait for.
        if (!wasArmed && !model.armed() && !model.checkingAI() && !model.error().isEmpty() &&
            !stopping) {
            for (const QString& issue : model.readinessIssues())
                out << QStringLiteral("À faire : ") << issue << Qt::endl;
            exitCode = 1;
            g_stopRequested = true;
        }
        // A failure takes the receptionist out of standby; re-arming is the user's call.
        if (wasArmed && !model.armed() && !model.busy() && !stopping) {
            out << QStringLiteral("Le standard n’est plus actif.") << Qt::endl;
            exitCode = 1;
            g_stopRequested = true;
        }
        if (g_stopRequested && !stopping) {
            stopping = true;
            out << QStringLiteral("Arrêt demandé…") << Qt::endl;
            if (model.busy())
                model.finish(); // the record, its transcript and its recording are saved
            if (model.armed())
                model.toggleArmed();
        }
        // The hang-up is watched until the softphone lets the call go (a few seconds).
        if (stopping && !model.busy() && model.finalizingRecordings().isEmpty() &&
            !model.hangUpPending()) {
            out << model.status() << Qt::endl;
            QCoreApplication::exit(exitCode);
        }
    });
    watch.start(100);
    return QCoreApplication::exec();
}

namespace cli {

void registerStandbyCommands(CommandTable& table)
{
    table.add(
        {QStringLiteral("standby"), QStringLiteral("[--phone-app NOM]…"),
         QStringLiteral("Standard sans fenêtre : décroche les appels du softphone jusqu’à Ctrl-C"),
         QStringLiteral(
             "Active le standard après les vérifications habituelles (appareils audio, "
             "accessibilité,\n"
             "clé et connexion IA), décroche les appels sonnant depuis 3 secondes dans le "
             "softphone\n"
             "et affiche le journal de session. Ctrl-C termine la conversation en cours en\n"
             "conservant sa fiche, sa transcription et son enregistrement.\n"
             "Sous Linux, les appareils virtuels « Brelian » sont créés s’ils manquent, et le\n"
             "son du softphone y est dirigé pendant chaque appel, puis rendu.\n\n"
             "  --phone-app NOM   l’application de téléphonie à surveiller : twinkle,\n"
             "                    gnome-calls, ou le nom d’une autre application (par défaut :\n"
             "                    Twinkle, GNOME Calls et les noms de VEMIRA_PHONE_APPS)"),
         &runStandbyCommand});
}

namespace {
const CommandRegistrar registrar(&registerStandbyCommands);
} // namespace

} // namespace cli

} // namespace vemira
