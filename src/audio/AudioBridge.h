#pragma once

#include "audio/AudioDeviceIO.h"
#include "audio/AudioFlowHealth.h"
#include "audio/AudioFormats.h"
#include "audio/MacAudioRoute.h"
#include "audio/VoiceEQSettings.h"
#include "core/AppError.h"

#include <QByteArray>
#include <QString>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace vemira {

class AudioSystem;
class BufferPlayer;
class CallAudioRecorder;
class Clock;
class FeedPlayer;
class VoiceOutputChain;

// Carries the sound of one conversation both ways: captures a device, converts each block to
// wire audio for the AI (onPCM), and plays the AI's wire audio through the voice output chain
// to another device; feeds the flow watchdog and the recorder; hosts the manager's
// intervention as a nested bridge on the computer's own microphone and headphones.
//
// Threads. Every public method belongs to the main thread. The capture path (conversion,
// limiter, peaks, recorder track 0, onPCM) runs on the engine's capture thread; the render path
// (players, output chain, mixer, output measure, recorder track 1, player completions) on its
// playback thread. They share with the main thread only `health` (under its lock), lock-free
// FIFOs and atomics; neither blocks, and neither allocates except the one wire block per
// capture block handed to onPCM.
class AudioBridge {
public:
    using PCMCallback = std::function<void(const QByteArray& wire)>;

    static constexpr int kBlockFrames = 2048;
    static constexpr int kMaxDeltaBytes = 1999999;

    // `clock.uptime()` is read from the audio threads as well as the main thread.
    AudioBridge(AudioDeviceIO& io, AudioSystem& system, const Clock& clock);
    AudioBridge(AudioDeviceIO& io, AudioSystem& system,
                AudioFlowHealth::TimeSource clock = &AudioFlowHealth::processUptime);
    ~AudioBridge();
    AudioBridge(const AudioBridge&) = delete;
    AudioBridge& operator=(const AudioBridge&) = delete;

    Status start(std::uint32_t inputID, std::uint32_t outputID, bool conversationOnMac);
    void stop();
    void enqueue(const QByteArray& bytes);
    void interrupt();
    bool needsRestart() const;
    Status resumeStoppedEngines();
    Status startIntervention(std::uint32_t microphoneID, std::uint32_t listeningID,
                             std::uint32_t callInputID);
    void stopIntervention();
    // (raw, converted) peaks of the latest capture block, or (0, 0) when 0.5 s old or older.
    std::pair<double, double> inputLevels() const;
    QString flowStatus() const;
    // Wire bytes → play samples; nothing for fewer than 2 or more than 1,999,999 bytes.
    static std::optional<std::vector<float>> playbackBuffer(const QByteArray& bytes);

    // Called on the capture thread with each converted block. Taken by start(): set it before.
    PCMCallback onPCM;
    // Taken by start(): a change takes effect at the next start.
    void setRecorder(std::shared_ptr<CallAudioRecorder> recorder)
    {
        m_recorder = std::move(recorder);
    }
    const std::shared_ptr<CallAudioRecorder>& recorder() const { return m_recorder; }
    // Stored, and applied at once to a running chain.
    void setVoiceEQ(const VoiceEQSettings& settings);
    const VoiceEQSettings& voiceEQ() const { return m_voiceEQ; }

    VoiceOutputChain* voiceOutput() const { return m_voiceOutput.get(); }
    AudioFlowHealth& health() { return m_health; }
    const AudioFlowHealth& health() const { return m_health; }
    const QString& routeDescription() const { return m_routeDescription; }
    bool captureRunning() const;
    bool playbackRunning() const;
    bool isTapped() const { return m_tapped && m_outputTapped; }
    const std::optional<DeviceFormat>& captureFormat() const { return m_captureFormat; }
    const std::optional<DeviceFormat>& mixerFormat() const { return m_mixerFormat; }
    AudioBridge* monitorBridge() const { return m_monitorBridge.get(); }
    MacAudioRoute& interventionRoute() { return m_interventionRoute; }

    static QString routeText(const QList<SoundDevice>& devices, std::uint32_t inputID,
                             std::uint32_t outputID, const DeviceFormat& source);

private:
    struct CapturePath;
    struct RenderPath;

    void onCapture(const float* interleaved, int frames);
    void onRender(float* interleaved, int frames);
    Status checkSystemDefaults(std::uint32_t inputID, std::uint32_t outputID);

    AudioDeviceIO& m_io;
    AudioSystem& m_system;
    AudioFlowHealth::TimeSource m_clock;

    std::unique_ptr<AudioEngine> m_engine;
    std::unique_ptr<BufferPlayer> m_player;
    // The manager's voice, pushed by the nested bridge's capture thread (mixer bus 1).
    std::unique_ptr<FeedPlayer> m_operatorFeed;
    // The caller's voice towards the manager, pushed by our capture thread while an
    // intervention runs and played by the nested bridge.
    std::unique_ptr<FeedPlayer> m_toManagerFeed;
    std::atomic<bool> m_feedingManager{false};
    // Set on a nested bridge: a feed it plays through its own chain, beside its player.
    FeedPlayer* m_voiceFeed = nullptr;

    std::unique_ptr<VoiceOutputChain> m_voiceOutput;
    VoiceEQSettings m_voiceEQ;
    MacAudioRoute m_interventionRoute;
    std::unique_ptr<AudioBridge> m_monitorBridge;
    bool m_tapped = false;
    bool m_outputTapped = false;
    std::optional<DeviceFormat> m_captureFormat;
    std::optional<DeviceFormat> m_mixerFormat;
    std::shared_ptr<CallAudioRecorder> m_recorder;
    AudioFlowHealth m_health;
    QString m_routeDescription;

    std::unique_ptr<CapturePath> m_capturePath;
    std::unique_ptr<RenderPath> m_renderPath;
};

} // namespace vemira
