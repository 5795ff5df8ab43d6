// Device list and system defaults through the Core Audio hardware properties.
// Main thread only; every call is synchronous.
#include "audio/AudioSystem.h"
#include "platform/macos/audio/CoreAudioProperties.h"

#include <CoreAudio/CoreAudio.h>
#include <vector>

namespace vemira {

namespace {

class CoreAudioSystem final : public AudioSystem {
public:
    QList<SoundDevice> devices() const override
    {
        QList<SoundDevice> list;
        const AudioObjectPropertyAddress address =
            coreaudio::globalAddress(kAudioHardwarePropertyDevices);
        UInt32 size = 0;
        if (AudioObjectGetPropertyDataSize(kAudioObjectSystemObject, &address, 0, nullptr, &size) !=
            noErr)
            return list;
        std::vector<AudioObjectID> ids(size / sizeof(AudioObjectID));
        if (ids.empty())
            return list;
        size = UInt32(ids.size() * sizeof(AudioObjectID));
        if (AudioObjectGetPropertyData(kAudioObjectSystemObject, &address, 0, nullptr, &size,
                                       ids.data()) != noErr)
            return list;
        ids.resize(size / sizeof(AudioObjectID));
        for (const AudioObjectID id : ids) {
            SoundDevice device;
            device.id = id;
            device.name = coreaudio::stringProperty(id, kAudioObjectPropertyName);
            device.uid = coreaudio::stringProperty(id, kAudioDevicePropertyDeviceUID);
            device.input = coreaudio::hasStreams(id, kAudioObjectPropertyScopeInput);
            device.output = coreaudio::hasStreams(id, kAudioObjectPropertyScopeOutput);
            list.append(device);
        }
        return list;
    }

    std::optional<std::uint32_t> transportType(std::uint32_t deviceID) const override
    {
        const AudioObjectPropertyAddress address =
            coreaudio::globalAddress(kAudioDevicePropertyTransportType);
        UInt32 transport = 0;
        UInt32 size = sizeof(transport);
        if (AudioObjectGetPropertyData(deviceID, &address, 0, nullptr, &size, &transport) !=
                noErr ||
            size != sizeof(transport))
            return std::nullopt;
        return transport;
    }

    Result<std::uint32_t> readDefault(std::uint32_t selector) override
    {
        const AudioObjectPropertyAddress address = coreaudio::globalAddress(selector);
        AudioObjectID device = kAudioObjectUnknown;
        UInt32 size = sizeof(device);
        const OSStatus status = AudioObjectGetPropertyData(kAudioObjectSystemObject, &address, 0,
                                                           nullptr, &size, &device);
        if (status != noErr)
            return readFailure(status);
        return device;
    }

    Status writeDefault(std::uint32_t selector, std::uint32_t deviceID) override
    {
        const AudioObjectPropertyAddress address = coreaudio::globalAddress(selector);
        const AudioObjectID device = deviceID;
        const OSStatus status = AudioObjectSetPropertyData(kAudioObjectSystemObject, &address, 0,
                                                           nullptr, sizeof(device), &device);
        if (status != noErr)
            return writeFailure(status);
        return std::nullopt;
    }
};

} // namespace

std::unique_ptr<AudioSystem> createPlatformAudioSystem()
{
    return std::make_unique<CoreAudioSystem>();
}

} // namespace vemira
