#pragma once

// The real application model on fake devices, a fake phone window, the real realtime client
// against a scripted loopback server, a temporary data folder and a fake clipboard/save
// dialog, with the real main window on top of it.

#include "FakeAccessibility.h"
#include "ScriptedRealtimeServer.h"
#include "app/AppModel.h"
#include "audio/SoundDevice.h"
#include "audio/fakes/FakeAudioDevices.h"
#include "records/APIKeyStore.h"
#include "records/DataFolder.h"
#include "records/DesktopServices.h"
#include "records/RecordsStore.h"
#include "ui/GuidedSetup.h"
#include "ui/MainWindow.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QUrl>
#include <memory>

namespace vemira::testing {

// What the desktop would do with the clipboard and the save dialog, recorded.
class FakeDesktop final : public DesktopServices {
public:
    bool copyPlainText(const QString& text) override
    {
        if (!clipboardWorks)
            return false;
        clipboard = text;
        return true;
    }
    std::optional<QString> chooseSaveLocation(const QString& proposedName, FileType type) override
    {
        proposedNames << proposedName;
        types << type;
        return saveTo;
    }
    void revealInFileBrowser(const QString& path) override { revealed << path; }

    bool clipboardWorks = true;
    QString clipboard;
    std::optional<QString> saveTo; // nullopt = the user cancels
    QStringList proposedNames;
    QList<FileType> types;
    QStringList revealed;
};

class UiWorkspace final : public Workspace {
public:
    bool openUrl(const QUrl& url) override
    {
        opened << url;
        return true;
    }
    void revealFile(const QString& path) override { revealed << path; }
    bool microphoneAuthorized() const override { return true; }
    QList<QUrl> opened;
    QStringList revealed;
};

inline constexpr std::uint32_t kCallDevice = 71;
inline constexpr std::uint32_t kVoiceDevice = 73;
inline constexpr std::uint32_t kHeadsetMic = 20;
inline constexpr std::uint32_t kHeadsetOut = 21;
inline const QString kPhoneApp = QStringLiteral("Téléphone");

struct UiRig {
    QTemporaryDir dir;
    ManualClock clock;
    ScriptedRealtimeServer server;
    FakeAudioSystem* system = nullptr;
    FakeAudioDeviceIO* io = nullptr;
    FakeAccessibility* accessibility = nullptr;
    FakeDesktop* desktop = nullptr;
    FakeElementPtr phoneApp;
    FakeElementPtr window;
    std::unique_ptr<AppModel> model;
    std::unique_ptr<ui::GuidedSetup> setup;
    std::unique_ptr<ui::MainWindow> mainWindow;

    // `seed` runs on a records store over the empty data folder before the model starts, so
    // the model loads those records from disk like any earlier history.
    explicit UiRig(const std::function<void(RecordsStore&)>& seed = {}, bool withKey = true,
                   ui::SetupProbes probes = {})
    {
        server.useAsEndpoint();
        if (withKey)
            LocalKeyStore(DataFolder(dir.path()).credentialsFolder())
                .save(QStringLiteral("sk-test"));
        if (seed) {
            RecordsStore store{DataFolder(dir.path())};
            seed(store);
        }

        AppDependencies deps;
        deps.clock = &clock;
        auto fakeSystem = std::make_unique<FakeAudioSystem>();
        system = fakeSystem.get();
        system->addDevice(kHeadsetMic, QStringLiteral("Micro du casque"),
                          QStringLiteral("headset-mic"), true, false, AudioTransport::usb);
        system->addDevice(kHeadsetOut, QStringLiteral("Casque"), QStringLiteral("headset-out"),
                          false, true, AudioTransport::usb);
        system->addDevice(kCallDevice, QStringLiteral("Brelian — Appel vers IA"),
                          BrelianDevices::callUID(), true, true, AudioTransport::virtualDevice);
        system->addDevice(kVoiceDevice, QStringLiteral("Brelian — IA vers appel"),
                          BrelianDevices::voiceUID(), true, true, AudioTransport::virtualDevice);
        system->defaults[AudioSelector::defaultInput] = kHeadsetMic;
        system->defaults[AudioSelector::defaultOutput] = kHeadsetOut;
        deps.audioSystem = std::move(fakeSystem);
        auto fakeIO = std::make_unique<FakeAudioDeviceIO>();
        io = fakeIO.get();
        for (std::uint32_t id : {kHeadsetMic, kHeadsetOut, kCallDevice, kVoiceDevice})
            io->addDevice(id, {48000, 1}, {48000, 2});
        deps.deviceIO = std::move(fakeIO);

        auto fakeAccessibility = std::make_unique<FakeAccessibility>();
        accessibility = fakeAccessibility.get();
        phoneApp = FakeElement::make(axrole::application());
        window = phoneApp->add(axrole::window(), QStringLiteral("Appels récents"));
        accessibility->running.push_back({kPhoneApp, phoneApp});
        accessibility->knownApplications = {kPhoneApp};
        deps.accessibility = std::move(fakeAccessibility);
        deps.phoneApplications = {kPhoneApp};
        deps.phoneApplication = kPhoneApp;
        deps.workspace = std::make_unique<UiWorkspace>();
        deps.sleepNotifier = std::make_unique<SleepNotifier>();
        auto fakeDesktop = std::make_unique<FakeDesktop>();
        desktop = fakeDesktop.get();
        deps.desktop = std::move(fakeDesktop);
        deps.dataFolder = dir.path();
        deps.settingsFile = settingsFile();

        model = std::make_unique<AppModel>(std::move(deps));
        setup = std::make_unique<ui::GuidedSetup>(*model, clock, std::move(probes));
        mainWindow = std::make_unique<ui::MainWindow>(model.get(), clock, setup.get());
        mainWindow->show();
    }

    ~UiRig()
    {
        mainWindow.reset();
        setup.reset();
        model.reset();
    }

    QString settingsFile() const { return dir.filePath(QStringLiteral("settings.ini")); }

    void tick(int seconds = 1)
    {
        for (int i = 0; i < seconds; ++i) {
            clock.advance(1.0);
            QCoreApplication::processEvents();
        }
    }

    // The records as a fresh start would read them from disk.
    QList<CallRecord> historyOnDisk() const
    {
        RecordsStore store{DataFolder(dir.path())};
        store.load();
        return store.records();
    }

    // Everything ready for phone calls: the virtual pair chosen and its routing proven.
    void prepareForCalls()
    {
        model->setInputUID(BrelianDevices::callUID());
        model->setOutputUID(BrelianDevices::voiceUID());
        model->setRoutingConfirmed(true);
        model->setInterventionMicUID(QStringLiteral("headset-mic"));
        model->setInterventionOutputUID(QStringLiteral("headset-out"));
    }

    void ring(const QString& number)
    {
        window->removeChildren();
        auto offer = window->add(axrole::group());
        offer->add(axrole::staticText(), QStringLiteral("Appel entrant"));
        offer->add(axrole::staticText(), number);
        auto answer = offer->add(axrole::button(), QStringLiteral("Répondre"));
        answer->onPress = [](FakeElement& button) { button.title = QStringLiteral("Raccrocher"); };
    }

    void showActiveCall()
    {
        window->removeChildren();
        window->add(axrole::button(), QStringLiteral("Raccrocher"));
    }
};

// A record as an earlier run would have saved it.
inline CallRecord seededRecord(const QString& caller, int daysAgo, std::optional<QString> dossier,
                               std::optional<QString> status, const QString& said)
{
    CallRecord r = CallRecord::create(QDateTime(QDate(2026, 3, 14), QTime(9, 30)).addDays(-daysAgo),
                                      caller, QStringLiteral("Appel"));
    r.dossier = std::move(dossier);
    r.followUpStatus = std::move(status);
    r.transcript << TranscriptLine::create(Speaker::caller(), said);
    return r;
}

} // namespace vemira::testing
