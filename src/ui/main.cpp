// vemira-app: the desktop application. Creates the one AppModel with the platform's parts,
// the main window and the status icon.
#include "app/AppModel.h"
#include "audio/probes/AudioRouteProbe.h"
#include "audio/probes/MicrophoneProbe.h"
#include "records/InstanceLock.h"
#include "ui/AppIcon.h"
#include "ui/GuiDesktopServices.h"
#include "ui/GuidedSetup.h"
#include "ui/MainWindow.h"
#include "ui/OrderlyQuit.h"
#include "ui/Screenshots.h"
#include "ui/SetupAssistant.h"
#include "ui/StatusIcon.h"
#include "ui/Theme.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QLocale>
#include <QMessageBox>
#include <QTextStream>

using namespace vemira;

int main(int argc, char* argv[])
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Vemira"));
    QApplication::setOrganizationName(QStringLiteral("Brelian"));
    QApplication::setOrganizationDomain(QStringLiteral("brelian.fr"));
    QApplication::setApplicationVersion(QStringLiteral(VEMIRA_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("vemira"));
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
    parser.addOption(screenshots);
    parser.addOption(settingsFile);
    parser.addOption(dark);
    parser.addOption(light);
    parser.process(app);
    if (parser.isSet(dark))
        ui::Theme::applyDarkPalette(app);
    else if (parser.isSet(light))
        ui::Theme::applyLightPalette(app);

    // One receptionist per data folder: refuse before the history is even read.
    auto instance = InstanceLock::acquire(DataFolder::standard(), QStringLiteral("vemira-app"));
    if (!instance) {
        QTextStream(stderr) << instance.error().message() << '\n';
        if (!parser.isSet(screenshots) && QGuiApplication::platformName() != u"offscreen")
            QMessageBox::critical(nullptr, QStringLiteral("Vemira"), instance.error().message());
        return 1;
    }

    AppDependencies deps = createPlatformDependencies();
    if (parser.isSet(settingsFile))
        deps.settingsFile = parser.value(settingsFile);
    Clock& clock = *deps.clock;
    // The model owns the audio parts; the setup's probes borrow them while no call runs.
    AudioDeviceIO& deviceIO = *deps.deviceIO;
    AudioSystem& audioSystem = *deps.audioSystem;
    auto desktop = std::make_unique<ui::GuiDesktopServices>();
    ui::GuiDesktopServices* desktopServices = desktop.get();
    deps.desktop = std::move(desktop);
    AppModel model(std::move(deps));
    // A signal, the session's end or "Quitter" end the call under way before the process does.
    ui::OrderlyQuit orderlyQuit(model);

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
    ui::StatusIcon status(&model);
    QObject::connect(&status, &ui::StatusIcon::showWindowRequested, &window, [&window] {
        window.showNormal();
        window.raise();
        window.activateWindow();
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
    window.show();
    window.presentStartupAssistant();
    return app.exec();
}
