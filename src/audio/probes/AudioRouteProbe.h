#pragma once

#include "audio/SoundDevice.h"
#include "core/AppError.h"
#include "core/PlatformWording.h"

#include <QList>
#include <QString>
#include <functional>
#include <memory>

namespace vemira {

class AudioDeviceIO;
class AudioSystem;
class Clock;

// Proves that sound really passes through both virtual circuits: for each device of the
// companion driver's pair, a bridge plays a test tone into the device and listens to what
// comes back out of it, and the tone must be heard there.
//
// Threads: main thread only; the waits are timers of `clock`, never blocking. The meters are
// fed on the bridges' capture threads and read here after each bridge has stopped.
class AudioRouteProbe {
public:
    struct Circuit {
        std::uint32_t deviceID;
        QString deviceName;
        double frequency;
    };
    // Facts noted at the end of one circuit, before its bridge stopped.
    struct Observation {
        bool restartRequested = false;
        std::int64_t capturedFrames = 0; // wire frames
        std::int64_t playedFrames = 0;
        std::int64_t recordedFrames = 0;
        QString flowStatus;
        std::int64_t meteredSamples = 0;
        double amplitude = 0;
    };
    // Nothing when both circuits passed, else the first failure.
    using Completion = std::function<void(Status)>;

    static constexpr double kSettleSeconds = 0.3;
    static constexpr double kListenSeconds = 6.0;
    static constexpr std::int64_t kMinimumFrames = 120000; // 5 s of wire audio

    AudioRouteProbe(AudioDeviceIO& io, AudioSystem& system, Clock& clock);
    // Abandons a running probe: its bridge stops, its folder goes, `done` is never called.
    ~AudioRouteProbe();
    AudioRouteProbe(const AudioRouteProbe&) = delete;
    AudioRouteProbe& operator=(const AudioRouteProbe&) = delete;

    // Probes the call circuit, then the voice circuit; stops at the first failure. When the
    // driver's pair is missing from `devices`, nothing is started and `done` is called before
    // run() returns. A run while another is going is refused the same way.
    void run(const QList<SoundDevice>& devices, Completion done);
    bool isRunning() const;

    // What one circuit's observation means: incomplete, silent or passed.
    static Status judge(const Circuit& circuit, const Observation& seen);

    static QString moduleMissingMessage() { return PlatformWording::current().devicesMissing; }
    static QString incompleteMessage(const QString& deviceName, const QString& flowStatus,
                                     std::int64_t recordedFrames);
    static QString silenceMessage(const QString& deviceName);
    static QString busyMessage() { return QStringLiteral("Un test du son est déjà en cours."); }
    // What the guided setup shows after a pass.
    static QString passedText()
    {
        return QStringLiteral("Son configuré · les deux circuits transmettent le signal de test");
    }

private:
    struct Run;
    void startCircuit(int index);
    void finishCircuit(int index);
    void concludeCircuit(int index, const Observation& seen);
    void complete(Status outcome);

    AudioDeviceIO& m_io;
    AudioSystem& m_system;
    Clock& m_clock;
    std::unique_ptr<Run> m_run;
};

} // namespace vemira
