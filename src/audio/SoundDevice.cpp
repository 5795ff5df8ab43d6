#include "audio/SoundDevice.h"

namespace vemira::BrelianDevices {

QString callUID()
{
    return uidPrefix + callSuffix;
}

QString voiceUID()
{
    return uidPrefix + voiceSuffix;
}

namespace {
const SoundDevice* firstDuplex(const QList<SoundDevice>& devices, const QString& uid)
{
    for (const SoundDevice& device : devices) {
        // A one-way device with the right uid is skipped: the driver publishes both
        // directions on both devices, so a half device is not ours to use.
        if (device.uid == uid && device.input && device.output)
            return &device;
    }
    return nullptr;
}
} // namespace

std::optional<Pair> pair(const QList<SoundDevice>& devices)
{
    const SoundDevice* call = firstDuplex(devices, callUID());
    if (!call)
        return std::nullopt;
    const SoundDevice* voice = firstDuplex(devices, voiceUID());
    if (!voice || voice->id == call->id)
        return std::nullopt;
    return Pair{*call, *voice};
}

} // namespace vemira::BrelianDevices
