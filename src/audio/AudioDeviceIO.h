#pragma once

#include "core/AppError.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace vemira {

// A device's own stream format: interleaved 32-bit float at this rate and channel count.
struct DeviceFormat {
    double sampleRate = 0;
    int channels = 0;

    bool isUsable() const { return sampleRate > 0 && channels > 0; }
    bool operator==(const DeviceFormat&) const = default;
};

// Capture: `frames` interleaved frames in the engine's capture format, on the capture thread.
// The pointer is valid only during the call. Must not block.
using CaptureCallback = std::function<void(const float* interleaved, int frames)>;

// Playback: fill exactly `frames` interleaved frames in the engine's playback format, on the
// playback thread. Must not block.
using RenderCallback = std::function<void(float* interleaved, int frames)>;

struct AudioEngineRequest {
    std::optional<std::uint32_t> inputDeviceID;  // capture from this device, or no capture
    std::optional<std::uint32_t> outputDeviceID; // play to this device, or no playback
    // The user talks through the computer's own microphone and speakers: the backend runs both
    // directions as one duplex engine and turns on echo cancellation and automatic gain control
    // where it can. The caller has made these devices the system defaults beforehand.
    bool conversationOnComputer = false;
    // Frames per capture callback the backend should aim for.
    int blockFrames = 2048;
};

// One opened pair of device streams (either may be absent). Formats, callbacks, start and stop
// belong to the main thread; the running flags may be read from any thread.
//
// Guarantees every backend gives:
// - Callbacks are installed before the direction starts and never run concurrently with
//   themselves. Blocks are at most maxBlockFrames frames.
// - stop*() returns only once its callback has returned and will not run again until the
//   next start*().
// - When the platform stops a direction by itself (device gone, format changed), its running
//   flag turns false and its callback stops being called; *Format() then reports the device's
//   current format, so the owner can tell a plain restart from a rebuild.
class AudioEngine {
public:
    static constexpr int maxBlockFrames = 8192;

    virtual ~AudioEngine() = default;

    virtual bool hasCapture() const = 0;
    virtual bool hasPlayback() const = 0;
    // Both directions live in one engine (conversation on the computer): starting or stopping
    // one may start or stop the other.
    virtual bool isDuplex() const = 0;

    // The device's current format; unusable (rate 0) when the direction is absent or unreadable.
    virtual DeviceFormat captureFormat() const = 0;
    virtual DeviceFormat playbackFormat() const = 0;

    virtual void setCaptureCallback(CaptureCallback callback) = 0;
    virtual void setRenderCallback(RenderCallback callback) = 0;

    // Failures carry the platform's own error text.
    virtual Status startCapture() = 0;
    virtual Status startPlayback() = 0;
    virtual void stopCapture() = 0;
    virtual void stopPlayback() = 0;

    virtual bool captureRunning() const = 0;
    virtual bool playbackRunning() const = 0;
};

// The platform's device input/output: opens engines on device ids, at each device's own format.
// Main thread only; one instance serves any number of engines (a bridge and its nested one).
class AudioDeviceIO {
public:
    virtual ~AudioDeviceIO() = default;

    // Opens, without starting. Failures: deviceUnavailable() when a device id does not exist
    // or has no such direction, selectFailure(status) when the platform refuses the device,
    // or the platform's own error when echo cancellation cannot be set up.
    virtual Result<std::unique_ptr<AudioEngine>> open(const AudioEngineRequest& request) = 0;

    static AppError deviceUnavailable()
    {
        return AppError(QStringLiteral("Périphérique audio indisponible."));
    }
    static AppError selectFailure(long long status)
    {
        return AppError::withStatus(
            QStringLiteral("Impossible de sélectionner le périphérique audio"), status);
    }
};

// Defined by the platform backend (PulseAudio on Linux, Core Audio on macOS).
std::unique_ptr<AudioDeviceIO> createPlatformAudioDeviceIO();

} // namespace vemira
