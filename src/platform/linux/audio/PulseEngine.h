#pragma once

#include "audio/AudioDeviceIO.h"
#include "platform/linux/audio/PulseDeviceTable.h"

#include <atomic>
#include <memory>
#include <pulse/stream.h>
#include <vector>

namespace vemira::pulse {

class EchoCanceller;
class PulseConnection;

// Capture and playback streams on PulseAudio devices, each at the device's own rate and
// channel count in 32-bit float.
//
// Threads: every AudioEngine method is for the main thread. Each engine has its own server
// connection and loop thread; both stream callbacks (and so the capture and render callbacks
// given to us) run on that thread, one at a time. The running flags are atomics, readable
// anywhere.
//
// Latency: capture fragments and the playback target are about 20 ms and 30 ms, asked with
// ADJUST_LATENCY so the server sizes the device buffers to match. Streams stay connected
// from start to stop (the whole conversation); a stream that dies with its device is not
// moved elsewhere (DONT_MOVE): the owner sees it stop and decides.
//
// Warm-up: a sink that had no low-latency client (a null sink left idle renders two-second
// blocks) makes a new stream wait up to about 1.7 s before the first sample moves. Each start
// therefore returns only once samples flow (or after warmUpLimitMs), so the owner's timing
// starts with a live device instead of losing the first seconds of a call.
class PulseEngine final : public AudioEngine {
public:
    struct Plan {
        std::optional<StreamTarget> capture;
        std::optional<StreamTarget> playback;
        bool conversationOnComputer = false;
        int blockFrames = 2048;
    };

    static constexpr int captureFragmentMs = 20;
    static constexpr int playbackTargetMs = 30;
    // With echo cancellation the loudspeaker buffer is kept a little longer: on a device whose
    // echo comes back almost at once (a monitor), a 30 ms buffer leaves the canceller too
    // little lead to stay aligned. Latency matters less there than a clean microphone.
    static constexpr int echoPlaybackTargetMs = 40;
    // A busy machine that cannot refill 30 ms in time gets a longer buffer, step by step: a
    // few more milliseconds of delay are better than a voice with holes in it.
    static constexpr int playbackTargetStepMs = 10;
    static constexpr int playbackTargetLimitMs = 80;
    static constexpr int warmUpLimitMs = 2500;

    // Connects this engine's own loop. Failure: a negative PulseAudio error code.
    static std::unique_ptr<PulseEngine> open(const Plan& plan, int* status);
    ~PulseEngine() override;

    bool hasCapture() const override { return m_capture.target.has_value(); }
    bool hasPlayback() const override { return m_playback.target.has_value(); }
    bool isDuplex() const override { return m_echo != nullptr; }
    DeviceFormat captureFormat() const override;
    DeviceFormat playbackFormat() const override;
    void setCaptureCallback(CaptureCallback callback) override;
    void setRenderCallback(RenderCallback callback) override;
    Status startCapture() override;
    Status startPlayback() override;
    void stopCapture() override;
    void stopPlayback() override;
    bool captureRunning() const override { return m_capture.running.load(); }
    bool playbackRunning() const override { return m_playback.running.load(); }

    // What the server reports for a running direction, in seconds: for capture, how long a
    // sample waited in device and server buffers before reaching us; for playback, how long a
    // sample we write now waits before the device plays it. Main thread.
    std::optional<double> captureLatency() const;
    std::optional<double> playbackLatency() const;
    // The capture fragment the server granted: the longest a sample waits in the stream
    // before our callback sees it. Main thread.
    std::optional<double> captureFragment() const;

private:
    struct Direction {
        std::optional<StreamTarget> target; // the device side
        pa_sample_spec sampleSpec{};        // our side: float32 at the engine's format
        pa_channel_map channelMap{};
        DeviceFormat format;
        pa_stream* stream = nullptr;
        std::atomic<bool> running{false};
        bool lost = false;    // the stream died by itself; loop lock
        bool flowing = false; // the device has moved samples since start; loop lock
        PulseEngine* engine = nullptr;
    };

    PulseEngine() = default;
    Status start(Direction& direction);
    void stop(Direction& direction);
    DeviceFormat currentFormat(const Direction& direction) const;
    std::optional<double> latencyOf(const Direction& direction) const;

    static void onState(pa_stream* stream, void* direction);
    static void onStarted(pa_stream* stream, void* direction);
    static void onUnderflow(pa_stream* stream, void* engine);
    static void onRead(pa_stream* stream, std::size_t bytes, void* engine);
    static void onWrite(pa_stream* stream, std::size_t bytes, void* engine);
    void deliver(const float* interleaved, int frames);
    void measureEchoDelay();
    static constexpr int delayCheckReads = 16;

    std::unique_ptr<PulseConnection> m_connection;
    Direction m_capture;
    Direction m_playback;
    int m_blockFrames = 2048;
    std::unique_ptr<EchoCanceller> m_echo;
    int m_readsSinceDelayCheck = delayCheckReads; // loop thread
    int m_playbackTargetMs = playbackTargetMs;    // loop thread while playing
    CaptureCallback m_captureCallback; // loop thread while running; set under the loop lock
    RenderCallback m_renderCallback;
    std::vector<float> m_silence; // holes in a capture stream are delivered as silence
    std::vector<float> m_cleaned; // echo canceller output
};

} // namespace vemira::pulse
