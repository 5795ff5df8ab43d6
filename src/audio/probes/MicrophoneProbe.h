#pragma once

#include "core/AppError.h"

#include <QString>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

namespace vemira {

class AudioDeviceIO;
class Clock;

// Listens to one microphone for five seconds and tells whether it heard anything.
//
// Threads: run() and every callback on the main thread. The capture thread only raises
// atomic peaks; a main-thread timer passes them on to `level`, so the audio thread neither
// allocates nor waits.
class MicrophoneProbe {
public:
    // Peak of the first channel, 0…1, as blocks arrive.
    using Level = std::function<void(double peak)>;
    // True when the largest peak was above kHeardThreshold.
    using Completion = std::function<void(Result<bool>)>;

    static constexpr double kListenSeconds = 5.0;
    static constexpr double kHeardThreshold = 0.005;
    static constexpr double kLevelPeriodSeconds = 0.05;
    static constexpr int kBlockFrames = 2048;

    MicrophoneProbe(AudioDeviceIO& io, Clock& clock);
    // Abandons a running probe: capture stops, no callback is called any more.
    ~MicrophoneProbe();
    MicrophoneProbe(const MicrophoneProbe&) = delete;
    MicrophoneProbe& operator=(const MicrophoneProbe&) = delete;

    // Failures that prevent listening call `done` before run() returns.
    void run(std::uint32_t deviceID, Level level, Completion done);
    bool isRunning() const;

    static QString unavailableMessage() { return QStringLiteral("Microphone indisponible."); }
    static QString openFailedMessage()
    {
        return QStringLiteral("Impossible d’ouvrir le microphone.");
    }
    static QString noFormatMessage()
    {
        return QStringLiteral("Le microphone ne fournit pas de format audio.");
    }
    static QString busyMessage() { return QStringLiteral("Un test du micro est déjà en cours."); }
    // What the model shows afterwards.
    static QString heardText() { return QStringLiteral("Le microphone capte du son"); }
    static QString silentText()
    {
        return QStringLiteral("Aucun son détecté : parlez plus près et vérifiez le microphone");
    }

    // The largest peak wins; written on the capture thread, read on the main thread.
    class PeakMeter {
    public:
        void offer(float peak);
        float largest() const { return m_largest.load(std::memory_order_relaxed); }
        // Largest peak offered since the previous take, or a negative value when none.
        float takeRecent();

    private:
        std::atomic<float> m_largest{0.0f};
        std::atomic<float> m_recent{-1.0f};
    };

private:
    struct Run;
    void passLevel();
    void finish();

    AudioDeviceIO& m_io;
    Clock& m_clock;
    std::unique_ptr<Run> m_run;
};

} // namespace vemira
