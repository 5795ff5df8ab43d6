#pragma once

// A whole application model on fake devices, a fake phone window and the real realtime
// client talking to a scripted server on loopback. Time is a ManualClock: each tick() is
// one second of the standby loop. The screen tests build their rig on the same machine.

#include "FakeAccessibility.h"
#include "ScriptedRealtimeServer.h"
#include "ai/RealtimeClient.h"
#include "app/AppModel.h"
#include "audio/AudioBridge.h"
#include "audio/SoundDevice.h"
#include "audio/fakes/FakeAudioDevices.h"
#include "phone/PhoneAutomation.h"
#include "records/APIKeyStore.h"
#include "records/DataFolder.h"
#include "records/RecordsStore.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QUrl>
#include <functional>
#include <memory>

namespace vemira::testing {

inline constexpr std::uint32_t kCallDevice = 71;
inline constexpr std::uint32_t kVoiceDevice = 73;
inline constexpr std::uint32_t kBuiltInMic = 10;
inline constexpr std::uint32_t kBuiltInSpeakers = 11;
inline constexpr std::uint32_t kHeadsetMic = 20;
inline constexpr std::uint32_t kHeadsetOut = 21;
inline const QString kPhoneApp = QStringLiteral("Téléphone");
inline const QString kCallerNumber = QStringLiteral("+33 6 12 34 56 78");

class FakeWorkspace final : public Workspace {
public:
    bool openUrl(const QUrl& url) override
    {
        opened << url;
        return acceptUrls;
    }
    void revealFile(const QString& path) override { revealed << path; }
    bool microphoneAuthorized() const override { return micAllowed; }

    bool acceptUrls = true;
    bool micAllowed = true;
    QList<QUrl> opened;
    QStringList revealed;
};

class FakeSleepNotifier final : public SleepNotifier {
public:
    void sleepNow()
    {
        if (onWillSleep)
            onWillSleep();
    }
    void powerOffNow()
    {
        if (onWillPowerOff)
            onWillPowerOff();
    }
    void wakeNow()
    {
        if (onWoke)
            onWoke();
    }
};

class FakeNotifier final : public DesktopNotifier {
public:
    void show(const CallNotice& notice) override { shown << notice; }
    // The notices about the receptionist rather than about one call.
    QList<CallNotice> alerts() const
    {
        QList<CallNotice> found;
        for (const CallNotice& notice : shown) {
            if (notice.callId.isNull())
                found << notice;
        }
        return found;
    }
    QList<CallNotice> shown;
};

// The fake machine and everything around the model: devices, phone window, workspace,
// sleep, a data folder holding the key, the scripted server. The model itself is started by
// the rig built on it, which may add its own parts to the dependencies first.
struct ModelRig {
    QTemporaryDir dir;
    ManualClock clock;
    ScriptedRealtimeServer server;
    FakeAudioSystem* system = nullptr;
    FakeAudioDeviceIO* io = nullptr;
    FakeAccessibility* accessibility = nullptr;
    FakeWorkspace* workspace = nullptr;
    FakeSleepNotifier* sleep = nullptr;
    FakeNotifier* notifier = nullptr;
    FakeElementPtr phoneApp;
    FakeElementPtr window;
    FakeElementPtr answerButton;
    // What held when the answer button was pressed, and the time the press was given.
    double pressTimeout = -1;
    bool bridgeRanAtAnswer = false;
    bool aiReadyAtAnswer = false;
    // Presses of the phone's hang-up button; the call then leaves the phone's window.
    int hangUps = 0;
    std::unique_ptr<AppModel> model;

    // `seed` runs on a records store over the empty data folder before the model starts, so
    // the model loads those records from disk like any earlier history.
    explicit ModelRig(bool withKey = true, const std::function<void(RecordsStore&)>& seed = {})
    {
        server.useAsEndpoint();
        if (withKey)
            LocalKeyStore(DataFolder(dir.path()).credentialsFolder())
                .save(QStringLiteral("sk-test"));
        if (seed) {
            RecordsStore store{DataFolder(dir.path())};
            seed(store);
        }
    }

    ~ModelRig() { model.reset(); }

    ModelRig(const ModelRig&) = delete;
    ModelRig& operator=(const ModelRig&) = delete;

    // The fake machine's parts, kept reachable through the pointers above.
    AppDependencies fakeDependencies()
    {
        AppDependencies deps;
        deps.clock = &clock;
        auto fakeSystem = std::make_unique<FakeAudioSystem>();
        system = fakeSystem.get();
        system->addDevice(kBuiltInMic, QStringLiteral("Micro intégré"), QStringLiteral("mic"), true,
                          false, AudioTransport::builtIn);
        system->addDevice(kBuiltInSpeakers, QStringLiteral("Haut-parleurs intégrés"),
                          QStringLiteral("speakers"), false, true, AudioTransport::builtIn);
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
        for (std::uint32_t id :
             {kBuiltInMic, kBuiltInSpeakers, kHeadsetMic, kHeadsetOut, kCallDevice, kVoiceDevice})
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

        auto fakeWorkspace = std::make_unique<FakeWorkspace>();
        workspace = fakeWorkspace.get();
        deps.workspace = std::move(fakeWorkspace);
        auto fakeSleep = std::make_unique<FakeSleepNotifier>();
        sleep = fakeSleep.get();
        deps.sleepNotifier = std::move(fakeSleep);
        auto fakeNotifier = std::make_unique<FakeNotifier>();
        notifier = fakeNotifier.get();
        deps.notifier = std::move(fakeNotifier);

        deps.dataFolder = dir.path();
        deps.settingsFile = settingsFile();
        return deps;
    }

    QString settingsFile() const { return dir.filePath(QStringLiteral("settings.ini")); }

    // Everything ready for phone calls: the virtual pair chosen and its routing proven.
    void prepareForCalls()
    {
        model->setInputUID(BrelianDevices::callUID());
        model->setOutputUID(BrelianDevices::voiceUID());
        model->setRoutingConfirmed(true);
        model->setInterventionMicUID(QStringLiteral("headset-mic"));
        model->setInterventionOutputUID(QStringLiteral("headset-out"));
    }

    // One second of the standby loop, with the network and audio hand-offs delivered.
    void tick(int seconds = 1)
    {
        for (int i = 0; i < seconds; ++i) {
            clock.advance(1.0);
            QCoreApplication::processEvents();
        }
    }

    // A moment on the clock, with what it set off delivered.
    void advance(double seconds)
    {
        clock.advance(seconds);
        QCoreApplication::processEvents();
    }

    // The call is over (when `ticking`, the standby loop runs meanwhile).
    bool ended(bool ticking = false)
    {
        return waitFor(
            [&] {
                if (ticking)
                    tick();
                return !model->busy();
            },
            10);
    }
    bool connected()
    {
        return waitFor([&] { return model->connected(); });
    }

    QList<QJsonObject> sent(const QString& type) const { return server.eventsOfType(type); }
    // The call's message was asked for.
    bool messageRequested() const
    {
        return waitFor([&] {
            const auto asked = sent(QStringLiteral("response.create"));
            return std::any_of(asked.begin(), asked.end(), RealtimeEvents::isMessageRequest);
        });
    }

    bool arm()
    {
        model->toggleArmed();
        return waitFor([this] { return model->armed(); });
    }

    // The phone application offers a call: context text, the number and "Répondre".
    void ring(const QString& number = kCallerNumber)
    {
        window->removeChildren();
        auto offer = window->add(axrole::group());
        offer->add(axrole::staticText(), QStringLiteral("Appel entrant"));
        offer->add(axrole::staticText(), number);
        answerButton = offer->add(axrole::button(), QStringLiteral("Répondre"));
        answerButton->onPress = [this](FakeElement& button) {
            if (button.title == QStringLiteral("Raccrocher")) {
                hangUp(button);
                return;
            }
            pressTimeout = button.timeout;
            bridgeRanAtAnswer = model->audio().captureRunning() && model->audio().playbackRunning();
            aiReadyAtAnswer = model->realtime().isReady();
            button.title = QStringLiteral("Raccrocher");
        };
    }

    // The call is on: the phone shows its hang-up button.
    void showActiveCall()
    {
        window->removeChildren();
        window->add(axrole::button(), QStringLiteral("Raccrocher"))->onPress =
            [this](FakeElement& button) { hangUp(button); };
    }

    void hangUp(FakeElement& button)
    {
        ++hangUps;
        button.title = QStringLiteral("Rappeler");
    }

    void phoneIdle() { window->removeChildren(); }

    // Rings, lets the tick take the call after 3 s and the AI confirm: the call is on.
    bool takeCall()
    {
        ring();
        tick(4);
        return model->busy() && connected();
    }

    bool armAndTakeCall() { return arm() && takeCall(); }

    // Rings and lets the tick take the call while the AI never confirms its session: the
    // call is on its way, the phone still rings.
    bool takeCallWithoutReadyAI()
    {
        server.behaviour().confirmSessions = false;
        ring();
        tick(4);
        // The probe's session.update, then the call's.
        return model->busy() &&
               waitFor([this] { return sent(QStringLiteral("session.update")).size() >= 2; });
    }

    // The caller's words reach the current call's transcript as one more line.
    bool callerSays(const QString& text)
    {
        if (!model->current())
            return false;
        const qsizetype before = model->current()->transcript.size();
        server.sendEvent(ScriptedRealtimeServer::callerTranscript(text));
        return waitFor(
            [&] { return model->current() && model->current()->transcript.size() == before + 1; });
    }

    QStringList speakers(const CallRecord& record) const
    {
        QStringList list;
        for (const TranscriptLine& line : record.transcript)
            list << line.speaker + QStringLiteral(": ") + line.text;
        return list;
    }

    // The history as a fresh start would read it from disk.
    QList<CallRecord> historyOnDisk() const
    {
        RecordsStore store{DataFolder(dir.path())};
        store.load();
        return store.records();
    }
};

// The model alone, ready for calls.
struct AppRig : ModelRig {
    AppRig()
    {
        model = std::make_unique<AppModel>(fakeDependencies());
        prepareForCalls();
    }
};

} // namespace vemira::testing
