#pragma once

#include "audio/AudioSystem.h"
#include "platform/linux/audio/PulseDeviceTable.h"

#include <memory>

namespace vemira::pulse {

class PulseConnection;

// Device list and system defaults of the PulseAudio (or pipewire-pulse) server.
// Main thread only. The connection is made on first use and made again after the server
// went away, so a restarted server is picked up without restarting the application.
class PulseAudioSystem final : public AudioSystem {
public:
    PulseAudioSystem();
    ~PulseAudioSystem() override;

    QList<SoundDevice> devices() const override;
    std::optional<std::uint32_t> transportType(std::uint32_t deviceID) const override;
    // "dIn " is the default source, "dOut" the default sink. Status codes are negative
    // PulseAudio error codes (-PA_ERR_NOENTITY when no such device or no default).
    Result<std::uint32_t> readDefault(std::uint32_t selector) override;
    Status writeDefault(std::uint32_t selector, std::uint32_t deviceID) override;

    // The whole table, for the device I/O's lookups. Status as above on failure.
    std::optional<DeviceTable> table(int* status) const;

private:
    PulseConnection* connection(int* status) const;
    mutable std::unique_ptr<PulseConnection> m_connection;
};

} // namespace vemira::pulse
