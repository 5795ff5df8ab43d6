// vemira-app: the desktop application. Creates the one AppModel with the platform's parts,
// the main window and the status icon.
#include "app/AppModel.h"
#include "app/SessionLogFile.h"
#include "audio/probes/AudioRouteProbe.h"
#include "audio/probes/MicrophoneProbe.h"
#include "records/InstanceLock.h"
#include "ui/AppIcon.h"
#include "ui/FrenchQt.h"
#include "ui/GuiDesktopServices.h"
#include "ui/GuidedSetup.h"
#include "ui/LoginStart.h"
#include "ui/MainWindow.h"
#include "ui/OrderlyQuit.h"
#include "ui/Screenshots.h"
#include "ui/SetupAssistant.h"
#include "ui/SingleInstance.h"
#include "ui/StatusIcon.h"
#include "ui/Theme.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QLocale>
#include <QMessageBox>
#include <QSystemTrayIcon>
#include <QTextStream>
#include <cstring>
#include <optional>

using namespace vemira;

int main(int argc, char* argv[])
{
    // Before any display is opened, so it answers over SSH and in scripts too.
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--version") == 0 || std::strcmp(argv[i], "-v") == 0) {
            QTextStream(stdout) << "vemira-app " << VEMIRA_VERSION << '\n';
            return 0;
        }
    }
    QApplication app(argc, argv);
    ui::useFrenchQt(app);
    QApplication::setApplicationName(QStringLiteral("Vemira"));
    QApplication::setOrganizationName(QStringLiteral("Brelian"));
    QApplication::setOrganizationDomain(QStringLiteral("brelian.fr"));
    QApplication::setApplicationVersion(QStringLiteral(VEMIRA_VERSION));
    QApplication::setDesktopFileName(QStringLiteral(VEMIRA_APP_ID));
    QApplication::setWindowIcon(ui::AppIcon::application());

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Vemira, standard téléphonique IA"));
    parser.addHelpOption();
    parser.addVersionOption();
    QCommandLineOption screenshots(QStringLiteral("screenshots"),
                                   QStringLiteral("Enregistre une image de chaque page et fenêtre "
                                                  "dans DOSSIER, puis quitte."),
                                   QStringLiteral("DOSSIER"));
    QCommandLineOption dark(QStringLiteral("dark"), QStringLiteral("Apparence sombre."));
    QCommandLineOption light(QStringLiteral("light"), QStringLiteral("Apparence claire."));
    QCommandLineOption settingsFile(QStringLiteral("settings"),
                                    QStringLiteral("Réglages dans ce fichier au lieu des "
                                                   "préférences de l’utilisateur."),
                                    QStringLiteral("FICHIER"));
    QCommandLineOption autostart(QStringLiteral("autostart"),
                                 QStringLiteral("Démarrage à l’ouverture de session : reste dans "
                                                "la zone de notification."));
    parser.addOption(autostart);
    parser.addOption(screenshots);
    parser.addOption(settingsFile);
    parser.addOption(dark);
    parser.addOption(light);
    parser.process(app);
    if (parser.isSet(dark))
        ui::Theme::applyDarkPalette(app);
    else if (parser.isSet(light))
        ui::Theme::applyLightPalette(app);

    // One receptionist per data folder: refuse before the history is even read. When the
    // holder is this application, its window comes forward instead.
    const DataFolder dataFolder = DataFolder::standard();
    auto instance = InstanceLock::acquire(dataFolder, QStringLiteral("vemira-app"));
    if (!instance && !parser.isSet(screenshots) && ui::SingleInstance::askRunningToShow(dataFolder))
        return 0;
    if (!instance) {
        QTextStream(stderr) << instance.error().message() << '\n';
        if (!parser.isSet(screenshots) && QGuiApplication::platformName() != u"offscreen")
            QMessageBox::critical(nullptr, QStringLiteral("Vemira"), instance.error().message());
        return 1;
    }

    ui::SingleInstance singleInstance(dataFolder);
    if (!parser.isSet(screenshots))
        singleInstance.listen();

    AppDependencies deps = createPlatformDependencies();
    if (parser.isSet(settingsFile))
        deps.settingsFile = parser.value(settingsFile);
    Settings loginSettings =
        parser.isSet(settingsFile) ? Settings(parser.value(settingsFile)) : Settings();
    Clock& clock = *deps.clock;
    // The model owns the audio parts; the setup's probes borrow them while no call runs.
    AudioDeviceIO& deviceIO = *deps.deviceIO;
    AudioSystem& audioSystem = *deps.audioSystem;
    auto desktop = std::make_unique<ui::GuiDesktopServices>();
    ui::GuiDesktopServices* desktopServices = desktop.get();
    deps.desktop = std::move(desktop);
    AppModel model(std::move(deps));
    std::optional<SessionLogFile> logFile;
    if (!parser.isSet(screenshots))
        logFile.emplace(model, LogFile(LogFile::standardFolder()));
    ui::LoginStart loginStart(model, std::move(loginSettings), createPlatformLoginItem());
    // A signal, the session's end or "Quitter" end the call under way before the process does.
    ui::OrderlyQuit orderlyQuit(model);
    QObject::connect(&orderlyQuit, &ui::OrderlyQuit::windingDown, &loginStart,
                     &ui::LoginStart::stopTracking);

    AudioRouteProbe routeProbe(deviceIO, audioSystem, clock);
    MicrophoneProbe microphoneProbe(deviceIO, clock);
    ui::SetupProbes probes;
    probes.route = [&routeProbe](const QList<SoundDevice>& devices,
                                 std::function<void(Status)> done) {
        routeProbe.run(devices, std::move(done));
    };
    probes.microphone = [&microphoneProbe](quint32 deviceID, std::function<void(double)> level,
                                           std::function<void(Result<bool>)> done) {
        microphoneProbe.run(deviceID, std::move(level), std::move(done));
    };
    probes.virtualDevices = createPlatformVirtualAudioDevices();
    probes.phoneRouting = createPlatformPhoneAudioRouting();
    ui::GuidedSetup setup(model, clock, std::move(probes));
    ui::MainWindow window(&model, clock, &setup);
    desktopServices->setDialogParent(&window);
    window.setLoginStart(&loginStart);
    ui::StatusIcon status(&model);
    const auto bringForward = [&window] {
        window.showNormal();
        window.raise();
        window.activateWindow();
    };
    QObject::connect(&status, &ui::StatusIcon::showWindowRequested, &window, bringForward);
    QObject::connect(&singleInstance, &ui::SingleInstance::showRequested, &window,
                     [&model, bringForward] {
                         bringForward();
                         model.event(QStringLiteral("Vemira ouvert à nouveau : fenêtre ramenée "
                                                    "au premier plan."));
                     });
    QObject::connect(&status, &ui::StatusIcon::recordRequested, &window,
                     &ui::MainWindow::showRecord);
    QObject::connect(&model, &AppModel::callOpenRequested, &window, &ui::MainWindow::showRecord);
    QObject::connect(&setup, &ui::GuidedSetup::macAssistantRequested, &window,
                     [&window] { window.openSetupAssistant()->showStep(1); });

    if (parser.isSet(screenshots)) {
        if (model.records().isEmpty())
            model.addDemo();
        model.setPage(QStringLiteral("Accueil"));
        const QStringList files =
            ui::saveScreenshots(window, parser.value(screenshots),
                                parser.isSet(dark) ? QStringLiteral("-sombre") : QString());
        QTextStream out(stdout);
        for (const QString& f : files)
            out << f << '\n';
        return 0;
    }

    status.show();
    // Started by the session: stay in the tray, unless there is no tray to come back from.
    if (!parser.isSet(autostart) || !QSystemTrayIcon::isSystemTrayAvailable()) {
        window.show();
        window.presentStartupAssistant();
    }
    if (parser.isSet(autostart))
        loginStart.startedAtLogin(&window);
    return app.exec();
}
