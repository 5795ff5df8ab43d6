#pragma once

#include "audio/AudioDeviceIO.h"
#include "audio/AudioSystem.h"
#include "support/WaitFor.h"

#include <QHash>
#include <QList>
#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace vemira::testing {

// System defaults and a device list held in memory, with failures on demand. Main thread.
class FakeAudioSystem final : public AudioSystem {
public:
    QList<SoundDevice> deviceList;
    QHash<std::uint32_t, std::uint32_t> transports;        // device id → transport code
    QHash<std::uint32_t, std::uint32_t> defaults;          // selector → device id
    QHash<std::uint32_t, long long> readFailures;          // selector → status
    QHash<std::uint32_t, long long> writeFailures;         // selector → status
    QList<std::pair<std::uint32_t, std::uint32_t>> writes; // every successful write, in order

    QList<SoundDevice> devices() const override { return deviceList; }
    std::optional<std::uint32_t> transportType(std::uint32_t id) const override;
    Result<std::uint32_t> readDefault(std::uint32_t selector) override;
    Status writeDefault(std::uint32_t selector, std::uint32_t deviceID) override;

    void addDevice(std::uint32_t id, const QString& name, const QString& uid, bool input,
                   bool output, std::uint32_t transport = AudioTransport::unknown);
};

class FakeAudioDeviceIO;

// One opened engine. Two modes:
// - threaded (the default): startCapture/startPlayback run real threads that call the
//   callbacks at the device's pace, like a sound card;
// - manual: nothing runs by itself; the test calls pumpCapture/pumpRender on its own thread
//   (deterministic tests, benchmarks).
class FakeAudioEngine final : public AudioEngine {
public:
    ~FakeAudioEngine() override;

    bool hasCapture() const override { return m_request.inputDeviceID.has_value(); }
    bool hasPlayback() const override { return m_request.outputDeviceID.has_value(); }
    bool isDuplex() const override { return m_request.conversationOnComputer; }
    DeviceFormat captureFormat() const override;
    DeviceFormat playbackFormat() const override;
    void setCaptureCallback(CaptureCallback callback) override;
    void setRenderCallback(RenderCallback callback) override;
    Status startCapture() override;
    Status startPlayback() override;
    void stopCapture() override;
    void stopPlayback() override;
    bool captureRunning() const override { return m_captureRunning.load(); }
    bool playbackRunning() const override { return m_playbackRunning.load(); }

    const AudioEngineRequest& request() const { return m_request; }

    // The platform stops a direction by itself (device gone, format change): the thread ends,
    // the running flag turns false. Any thread.
    void platformStopCapture();
    void platformStopPlayback();

    // Manual mode: one callback on the calling thread (only when that direction runs).
    void pumpCapture(const float* interleaved, int frames);
    void pumpRender(float* interleaved, int frames);

private:
    friend class FakeAudioDeviceIO;
    FakeAudioEngine(FakeAudioDeviceIO& io, AudioEngineRequest request);
    void captureLoop(DeviceFormat format, int frames, double period);
    void playbackLoop(DeviceFormat format, int frames, double period);
    void join(std::thread& thread, std::atomic<bool>& quit);

    FakeAudioDeviceIO& m_io;
    AudioEngineRequest m_request;
    const std::uint32_t m_inputID;
    const std::uint32_t m_outputID;
    CaptureCallback m_captureCallback;
    RenderCallback m_renderCallback;
    std::atomic<bool> m_captureRunning{false};
    std::atomic<bool> m_playbackRunning{false};
    std::atomic<bool> m_captureQuit{false};
    std::atomic<bool> m_playbackQuit{false};
    std::thread m_captureThread;
    std::thread m_playbackThread;
};

// Devices with their own formats, a capture feed per device and a record of what was played
// per device. open() and the device table are for the main thread; feed and played-audio
// accessors are safe from any thread.
class FakeAudioDeviceIO final : public AudioDeviceIO {
public:
    struct Device {
        DeviceFormat captureFormat{48000, 2};
        DeviceFormat playbackFormat{48000, 2};
        std::optional<long long> selectStatus; // open fails with selectFailure(status)
        std::optional<QString> startError;     // start fails with this text
        std::optional<QString> echoError;      // open in computer mode fails with this text
    };

    bool threaded = true;
    // Capture blocks: the engine's requested block (2,048 frames) unless set; then this
    // duration at the device's own rate, like a sound card with a 10 ms or 20 ms period.
    std::optional<double> captureBlockSeconds;

    Device& addDevice(std::uint32_t id, DeviceFormat capture = {48000, 2},
                      DeviceFormat playback = {48000, 2});
    Device* device(std::uint32_t id);

    Result<std::unique_ptr<AudioEngine>> open(const AudioEngineRequest& request) override;

    // Engines alive now, oldest first.
    QList<FakeAudioEngine*> engines() const;
    FakeAudioEngine* lastEngine() const;
    int openCount() const { return m_openCount; }

    // Capture audio of a device, interleaved in its capture format. Once the feed runs dry the
    // device delivers silence.
    void feed(std::uint32_t deviceID, const std::vector<float>& interleaved);
    // A sine on every channel.
    void feedTone(std::uint32_t deviceID, double frequency, double amplitude, double seconds);

    // What was played to a device, interleaved in its playback format.
    std::vector<float> played(std::uint32_t deviceID) const;
    std::vector<float> playedChannel(std::uint32_t deviceID, int channel) const;
    std::size_t playedFrames(std::uint32_t deviceID) const;
    void clearPlayed(std::uint32_t deviceID);

private:
    friend class FakeAudioEngine;
    struct Stream {
        std::deque<float> feed;
        std::vector<float> played;
    };
    // Fills `frames` frames, silence past the feed.
    void takeCapture(std::uint32_t deviceID, float* out, int frames, int channels);
    void recordPlayed(std::uint32_t deviceID, const float* data, int frames, int channels);
    void forget(FakeAudioEngine* engine);

    std::map<std::uint32_t, Device> m_devices;
    QList<FakeAudioEngine*> m_engines;
    int m_openCount = 0;
    mutable std::mutex m_streamsLock;
    std::map<std::uint32_t, Stream> m_streams;
};

} // namespace vemira::testing
