#pragma once

#include "app/AppModel.h"
#include "audio/PhoneAudioRouting.h"
#include "audio/SoundDevice.h"
#include "audio/VirtualAudioDevices.h"
#include "core/AppError.h"

#include <QObject>
#include <functional>

namespace vemira {
class SoundServerSetup;
}

namespace vemira::ui {

// How the assistant reaches the audio probes. The application passes the audio engine's
// real probes; tests pass scripted ones.
struct SetupProbes {
    // Plays the test tone through both virtual circuits; done(nullopt) when both pass.
    std::function<void(const QList<SoundDevice>& devices, std::function<void(Status)> done)> route;
    // Listens to a microphone for a few seconds; `level` gets peaks on the main thread;
    // done(true) when sound was heard.
    std::function<void(quint32 deviceID, std::function<void(double)> level,
                       std::function<void(Result<bool>)> done)>
        microphone;
    // Where Vemira makes the two virtual devices itself (Linux): their maker, and a routing of
    // its own to try on the softphone's open streams. Null where a driver provides them.
    std::shared_ptr<VirtualAudioDevices> virtualDevices;
    std::shared_ptr<PhoneAudioRouting> phoneRouting;
};

// The guided setup: walks a first-time user through the four steps ("Installer le son",
// "Autoriser le Mac", "Connecter l’IA", "Audio du téléphone") by running the probes, the
// phone application's audio preparation and the observation of a relayed test call, and
// writing their outcome into the model. It owns no state the screens read: everything it
// learns goes into the model's setup fields.
class GuidedSetup : public QObject, public GuidedSetupHooks {
    Q_OBJECT

public:
    GuidedSetup(AppModel& model, Clock& clock, SetupProbes probes, QObject* parent = nullptr);
    ~GuidedSetup() override;

    // Step 1: prove that sound crosses both virtual circuits (sets routingConfirmed).
    void configureSound();
    // Step 2: the Mac's microphone picks up sound (also verifies the Mac's own audio path).
    void testMicrophone();
    // Step 2: system settings for the permissions (Accessibility, microphone).
    void openAccessibilitySettings();
    void openMicrophoneSettings();
    // Step 1 where Vemira makes the devices: create, remove, and recreate them at each start of
    // the sound server (a start-up file, written only when the user asks for it).
    bool makesDevices() const { return m_soundServer != nullptr; }
    void checkDevices();
    void createDevices();
    void removeDevices();
    bool devicesPersistent() const;
    void setDevicesPersistent(bool keep);
    // Step 4 there: the softphone's open streams moved onto the devices and straight back.
    void checkPhoneAudio();
    // Step 4: the phone application on the virtual devices, and back on the system's.
    void prepareLink();
    void phoneBackToSystem();
    // Step 4: wait for a call relayed to the phone application, then for a test call taken
    // by the switchboard.
    void observeTestCall();
    void stopObserving();

    // GuidedSetupHooks
    void resumeSetupIfReady() override;
    void observeRelay() override;
    bool isWorking() const override;
    void openMacAssistant() override;

    // How long a test call is waited for.
    static constexpr double kRelayWaitSeconds = 300;

Q_SIGNALS:
    // The Mac's own audio needs checking before a conversation on the Mac.
    void macAssistantRequested();

private:
    std::optional<SoundDevice> macMicrophone() const;
    void lookForValidatedCall();

    AppModel& m_model;
    Clock& m_clock;
    SetupProbes m_probes;
    std::unique_ptr<SoundServerSetup> m_soundServer;
    std::shared_ptr<bool> m_lifetime = std::make_shared<bool>(true);
};

} // namespace vemira::ui
