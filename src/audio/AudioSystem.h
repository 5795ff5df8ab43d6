#pragma once

#include "audio/SoundDevice.h"
#include "core/AppError.h"
#include "core/PlatformWording.h"

#include <QList>
#include <cstdint>
#include <memory>
#include <optional>

namespace vemira {

// The operating system's audio hardware: the device list and the two system defaults.
// Every method is called from the main thread and is synchronous.
class AudioSystem {
public:
    virtual ~AudioSystem() = default;

    // Devices in the platform's order. Never fails: an unreadable list is an empty list,
    // an unreadable name or uid is an empty text.
    virtual QList<SoundDevice> devices() const = 0;

    // Transport type code of a device (AudioTransport::*), or nothing when unreadable.
    virtual std::optional<std::uint32_t> transportType(std::uint32_t deviceID) const = 0;

    // Reads / writes a system default (AudioSelector::defaultInput or defaultOutput).
    // Failures carry readFailure(status) / writeFailure(status).
    virtual Result<std::uint32_t> readDefault(std::uint32_t selector) = 0;
    virtual Status writeDefault(std::uint32_t selector, std::uint32_t deviceID) = 0;

    // The user-facing texts of a failed read or write, with the platform's status code.
    static AppError readFailure(long long status)
    {
        return AppError::withStatus(PlatformWording::current().readDefaultFailure, status);
    }
    static AppError writeFailure(long long status)
    {
        return AppError::withStatus(PlatformWording::current().writeDefaultFailure, status);
    }
};

// Defined by the platform backend (PulseAudio on Linux, Core Audio on macOS).
std::unique_ptr<AudioSystem> createPlatformAudioSystem();

} // namespace vemira
