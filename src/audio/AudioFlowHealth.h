#pragma once

#include <QString>
#include <cstdint>
#include <functional>
#include <mutex>

namespace vemira {

class Clock;

// Watchdog counters of one call audio bridge. Audio threads (capture, output measure, player
// completions) and the main thread (enqueue, interrupt, stop, reset) write; the main thread
// reads. Every field is touched only under `m_lock`, and nothing is called under it but the
// clock, so each method is safe from any thread and never waits long.
class AudioFlowHealth {
public:
    using TimeSource = std::function<double()>;

    struct Snapshot {
        double inputTime = 0;
        double outputTime = 0;
        double demandTime = 0;
        std::int64_t inputFrames = 0;
        std::int64_t outputFrames = 0;
        double rawInputSeconds = 0;
        std::int64_t inputErrors = 0;
        double rawOutputSeconds = 0;
        std::int64_t outputErrors = 0;
        double rawPeak = 0;
        double pcmPeak = 0;
        std::int64_t signalFrames = 0;
        double latestRaw = 0;
        double latestPCM = 0;
        double signalTime = 0;
        std::int64_t pending = 0;
        std::int64_t generation = 0;
    };

    static constexpr double kStallSeconds = 3.0;
    static constexpr double kSignalThreshold = 0.003;

    // Default time source: the process's monotonic uptime in seconds.
    AudioFlowHealth();
    explicit AudioFlowHealth(TimeSource clock);
    // The clock's uptime() is read from audio threads too: give a clock whose uptime() is
    // safe to call from any thread.
    explicit AudioFlowHealth(const Clock& clock);

    static double processUptime();

    void reset();
    void inputSignal(double raw, double converted, std::int64_t frames);
    bool stalled() const;
    QString description() const;
    QString signalDescription() const;

    // Single-field updates made by the bridge's audio paths.
    void addRawInput(double seconds);
    void addInputError();
    void inputDelivered(std::int64_t frames);
    void addRawOutput(double seconds);
    void addOutputError();
    void outputDelivered(std::int64_t frames);

    // Playback accounting. scheduled() returns the generation to hand back to played().
    std::int64_t scheduled();
    void played(std::int64_t generation);
    // interrupt and stop: forget what is pending and make older completions inert.
    void dropPending();

    // (latestRaw, latestPCM) when measured less than 0.5 s ago, else (0, 0).
    std::pair<double, double> recentLevels() const;

    Snapshot snapshot() const;
    double now() const { return m_clock(); }

private:
    mutable std::mutex m_lock;
    TimeSource m_clock;
    Snapshot m_s;
};

} // namespace vemira
