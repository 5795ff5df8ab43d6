#pragma once

#include "audio/SoundDevice.h"
#include "core/AppError.h"
#include "core/PlatformWording.h"

#include <QList>
#include <cstdint>
#include <functional>
#include <optional>

namespace vemira {

class AudioSystem;

// A reversible change of the system default input and output. Remembers what it changed and
// puts back only what is still as it left it. Main thread only; one owner at a time.
class MacAudioRoute {
public:
    using Read = std::function<Result<std::uint32_t>(std::uint32_t selector)>;
    using Write = std::function<Status(std::uint32_t selector, std::uint32_t deviceID)>;
    using Transport = std::function<std::optional<std::uint32_t>(std::uint32_t deviceID)>;

    struct Change {
        std::uint32_t selector = 0;
        std::uint32_t before = 0;
        std::uint32_t applied = 0;
        bool operator==(const Change&) const = default;
    };

    // Reads and writes the system's defaults through `system` (which must outlive the route).
    explicit MacAudioRoute(AudioSystem& system);
    // Injected readers and writers; `transport` is needed only by prepare(devices).
    MacAudioRoute(Read read, Write write, Transport transport = {});

    Status prepare(std::uint32_t inputID, std::uint32_t outputID);
    // The built-in microphone and built-in output of `devices`.
    Status prepare(const QList<SoundDevice>& devices);
    // The same, with transport types read from `system`.
    Status prepare(const QList<SoundDevice>& devices, const AudioSystem& system);
    void restore();

    const QList<Change>& previous() const { return m_previous; }
    bool isPrepared() const { return !m_previous.isEmpty(); }

    static QString builtInMissingMessage() { return PlatformWording::current().builtInMissing; }

private:
    Status prepareBuiltIn(const QList<SoundDevice>& devices, const Transport& transport);

    QList<Change> m_previous;
    Read m_read;
    Write m_write;
    Transport m_transport;
};

} // namespace vemira
