#pragma once

// Small readers of Core Audio object properties shared by the system and the engines.
#include "audio/AudioDeviceIO.h"

#include <CoreAudio/CoreAudio.h>
#include <QString>

namespace vemira::coreaudio {

inline AudioObjectPropertyAddress globalAddress(AudioObjectPropertySelector selector)
{
    // kAudioObjectPropertyElementMain is the macOS 12 name of element 0 ("Master" before).
    return AudioObjectPropertyAddress{selector, kAudioObjectPropertyScopeGlobal,
                                      kAudioObjectPropertyElementMain};
}

// A CFString property as text; empty when it cannot be read.
QString stringProperty(AudioObjectID object, AudioObjectPropertySelector selector);
// The device has at least one stream in that scope (input or output).
bool hasStreams(AudioObjectID device, AudioObjectPropertyScope scope);
// False when the device is gone or its state cannot be read.
bool isAlive(AudioObjectID device);
// Nominal rate and channel count of one direction; unusable when unreadable.
DeviceFormat deviceFormat(AudioObjectID device, AudioObjectPropertyScope scope);

} // namespace vemira::coreaudio
