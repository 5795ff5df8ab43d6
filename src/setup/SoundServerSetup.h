#pragma once

#include "audio/PhoneAudioRouting.h"
#include "audio/VirtualAudioDevices.h"

#include <QString>

namespace vemira {

// What one setup action did, as the step's state line shows it.
struct SetupOutcome {
    bool ok = false;
    QString text; // a complete French sentence
};

// The guided setup's audio steps where Vemira makes the two virtual devices itself and moves
// the softphone's streams at each call (Linux): create, check and remove the devices, make
// them come back at each start of the sound server only when the user asks for it, and try
// the call routing on the softphone's streams open right now. Main thread; each action is
// synchronous and bounded by the sound server's own time limits.
class SoundServerSetup {
public:
    // `routing` may be null (the trial then says it cannot run).
    SoundServerSetup(VirtualAudioDevices& devices, PhoneAudioRouting* routing);

    SetupOutcome check();
    // Makes the missing devices, and again those of ours at another format.
    SetupOutcome create();
    SetupOutcome remove();
    bool persistent() const;
    // Writes or removes the sound server's start-up file; called only on the user's request.
    SetupOutcome setPersistent(bool keep);
    // Moves the owner's open call streams onto the devices and straight back, and says what
    // happens at answer time. The devices must exist.
    SetupOutcome tryPhoneRouting(const PhoneStreamOwner& owner, const QString& callUID,
                                 const QString& voiceUID);

private:
    VirtualAudioDevices& m_devices;
    PhoneAudioRouting* m_routing;
};

} // namespace vemira
