#pragma once

#include "audio/SoundDevice.h"

#include <QByteArray>
#include <QList>
#include <cstdint>
#include <optional>
#include <pulse/channelmap.h>
#include <pulse/def.h>
#include <pulse/sample.h>

namespace vemira::pulse {

class PulseConnection;

// A sink or source as the server describes it (what we keep of pa_sink_info/pa_source_info).
struct ServerEndpoint {
    std::uint32_t index = 0;
    QByteArray name;
    QString description;
    bool hardware = false;
    QByteArray bus;        // "device.bus": pci, usb, bluetooth…
    QByteArray api;        // "device.api": alsa, bluez…
    QByteArray formFactor; // "device.form_factor": internal, headset…
    pa_sample_spec sampleSpec{};
    pa_channel_map channelMap{};
    QByteArray monitorName;                     // sinks: their monitor source
    std::uint32_t monitorOf = PA_INVALID_INDEX; // sources: the sink they monitor
};

// Where a device's sound is taken from or sent to.
struct StreamTarget {
    QByteArray name;
    pa_sample_spec sampleSpec{};
    pa_channel_map channelMap{};
};

struct DeviceEntry {
    SoundDevice device;
    std::uint32_t transport = AudioTransport::unknown;
    std::optional<StreamTarget> capture;
    std::optional<StreamTarget> playback;
};

// The server's devices in the shape the rest of the application knows.
//
// A sink that is not hardware (a null sink, a virtual cable) and its monitor source form one
// duplex device: what is played into it can be captured from it, as with the companion
// driver's devices. Hardware sinks are output devices and their monitors are not listed (a
// loudspeaker's monitor is not a microphone); other sources are input devices.
//
// Ids are a hash of the server-side name, so they survive the device being unloaded and
// loaded again and are the same in every process; they are never 0.
struct DeviceTable {
    QList<DeviceEntry> entries;
    QByteArray defaultSink;
    QByteArray defaultSource;

    static DeviceTable build(const QList<ServerEndpoint>& sinks,
                             const QList<ServerEndpoint>& sources, QByteArray defaultSink,
                             QByteArray defaultSource);

    const DeviceEntry* find(std::uint32_t id) const;
    QList<SoundDevice> devices() const;
    // Id of the device a server-side name belongs to; a monitor of a duplex device gives that
    // device's id. Names of unlisted endpoints still get their stable id.
    std::uint32_t idForSink(const QByteArray& name) const;
    std::uint32_t idForSource(const QByteArray& name) const;
};

std::uint32_t stableDeviceID(const QByteArray& serverName);
std::uint32_t classifyTransport(const ServerEndpoint& endpoint);

// Reads sinks, sources and the defaults in one round. Caller holds the connection's lock.
// On failure returns nothing and sets *status to a negative PulseAudio error code.
std::optional<DeviceTable> fetchDeviceTable(PulseConnection& connection, int timeoutMs,
                                            int* status);

} // namespace vemira::pulse
