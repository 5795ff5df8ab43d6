#pragma once

#include "core/AppError.h"

#include <QString>
#include <memory>

namespace vemira {

// The two virtual call devices ("Brelian — Appel vers IA", "Brelian — IA vers appel") where the
// application makes them itself instead of a companion driver: on the sound server, at the
// driver's format (48 kHz stereo) and with the driver's uids, so the rest of the application
// cannot tell them apart. Main thread only; every operation is synchronous and bounded.
class VirtualAudioDevices {
public:
    virtual ~VirtualAudioDevices() = default;

    // Null when both devices are there in the right format, else what is wrong, in French.
    virtual Status check() = 0;
    // Makes the missing devices; the user's default speaker and microphone stay as they were.
    virtual Status create() = 0;
    // Removes both devices (only those: other virtual devices of the user stay).
    virtual Status remove() = 0;

    // Whether the sound server makes the devices again at each start.
    virtual bool persistent() const = 0;
    // Writes the sound server's start-up file that makes them (only on the user's request);
    // the path written on success.
    virtual Result<QString> persist() = 0;
    // Removes that file again.
    virtual Status forget() = 0;
};

// The platform's devices maker, or null where a driver provides the devices (macOS).
std::unique_ptr<VirtualAudioDevices> createPlatformVirtualAudioDevices();

} // namespace vemira
