#include "platform/macos/audio/CoreAudioProperties.h"

#include <CoreFoundation/CoreFoundation.h>
#include <vector>

namespace vemira::coreaudio {

QString stringProperty(AudioObjectID object, AudioObjectPropertySelector selector)
{
    const AudioObjectPropertyAddress address = globalAddress(selector);
    CFStringRef value = nullptr;
    UInt32 size = sizeof(value);
    if (AudioObjectGetPropertyData(object, &address, 0, nullptr, &size, &value) != noErr || !value)
        return QString();
    const QString text = QString::fromCFString(value);
    CFRelease(value); // the property hands over a retained string
    return text;
}

bool hasStreams(AudioObjectID device, AudioObjectPropertyScope scope)
{
    const AudioObjectPropertyAddress address{kAudioDevicePropertyStreams, scope,
                                             kAudioObjectPropertyElementMain};
    UInt32 size = 0;
    return AudioObjectGetPropertyDataSize(device, &address, 0, nullptr, &size) == noErr && size > 0;
}

bool isAlive(AudioObjectID device)
{
    const AudioObjectPropertyAddress address = globalAddress(kAudioDevicePropertyDeviceIsAlive);
    UInt32 alive = 0;
    UInt32 size = sizeof(alive);
    return AudioObjectGetPropertyData(device, &address, 0, nullptr, &size, &alive) == noErr &&
           alive != 0;
}

DeviceFormat deviceFormat(AudioObjectID device, AudioObjectPropertyScope scope)
{
    Float64 rate = 0;
    UInt32 size = sizeof(rate);
    const AudioObjectPropertyAddress rateAddress{kAudioDevicePropertyNominalSampleRate,
                                                 kAudioObjectPropertyScopeGlobal,
                                                 kAudioObjectPropertyElementMain};
    if (AudioObjectGetPropertyData(device, &rateAddress, 0, nullptr, &size, &rate) != noErr)
        return {};
    const AudioObjectPropertyAddress layoutAddress{kAudioDevicePropertyStreamConfiguration, scope,
                                                   kAudioObjectPropertyElementMain};
    if (AudioObjectGetPropertyDataSize(device, &layoutAddress, 0, nullptr, &size) != noErr ||
        size < sizeof(AudioBufferList))
        return {};
    std::vector<std::uint8_t> storage(size);
    auto* buffers = reinterpret_cast<AudioBufferList*>(storage.data());
    if (AudioObjectGetPropertyData(device, &layoutAddress, 0, nullptr, &size, buffers) != noErr)
        return {};
    int channels = 0;
    for (UInt32 i = 0; i < buffers->mNumberBuffers; ++i)
        channels += int(buffers->mBuffers[i].mNumberChannels);
    return DeviceFormat{rate, channels};
}

} // namespace vemira::coreaudio
