#pragma once

// What the Core Audio backend decides without calling the system, kept here so it is built
// and tested on every platform; the macOS backend only reads properties and calls units.
#include "audio/AudioDeviceIO.h"
#include "core/AppError.h"

#include <cstdint>

namespace vemira::coreaudio {

// One direction of a device as a property listener finds it.
struct DeviceState {
    bool alive = false;
    DeviceFormat format; // the device's own rate and channel count in that direction
    bool operator==(const DeviceState&) const = default;
};

// Core Audio notifies a listener for any write of a watched property, also one that leaves
// the value as it was (another program setting the same rate, a stream list re-published).
// A direction is stopped only when the device went away or its format really changed, so
// that such notifications do not use up the call's restarts.
bool deviceChanged(const DeviceState& opened, const DeviceState& now);

// The format we ask the voice-processing unit for on both sides. The unit converts between
// the hardware and this client format itself and accepts mono: the echo canceller works on
// one microphone channel and its reference, so the device's own channel count is not forced
// on it.
DeviceFormat voiceProcessingFormat(const DeviceFormat& device);

// The status codes that have a clearer sentence than the generic one.
inline constexpr std::int32_t kBadDeviceStatus = 0x21646576;   // '!dev': no such device
inline constexpr std::int32_t kPermissionsStatus = 0x21686F67; // '!hog': held by another program
// What an audio unit answers for a property, scope, element or value it does not take.
inline constexpr std::int32_t kInvalidPropertyValueStatus = -10851;
inline constexpr std::int32_t kPropertyNotWritableStatus = -10865;
inline constexpr std::int32_t kInvalidScopeStatus = -10866;
inline constexpr std::int32_t kInvalidElementStatus = -10877;
inline constexpr std::int32_t kInvalidPropertyStatus = -10879;

// A unit or device that failed to start.
AppError startFailure(std::int32_t status);
// The voice-processing unit could not be set up (created, formatted, initialised).
AppError echoFailure(std::int32_t status);
// An optional setting of the voice-processing unit (echo processing on, automatic gain, uplink
// not muted, ducking of other audio, input enabled) that this macOS refused: the unit's default
// is then used and the conversation goes on. Any other status is a real failure.
bool isRefusedSetting(std::int32_t status);

} // namespace vemira::coreaudio
