#include "audio/probes/MicrophoneProbe.h"

#include "audio/AudioDeviceIO.h"
#include "core/Clock.h"

#include <QObject>
#include <cmath>

namespace vemira {

namespace {
struct DeleteLater {
    void operator()(QObject* object) const { object->deleteLater(); }
};

void raiseTo(std::atomic<float>& value, float candidate)
{
    float seen = value.load(std::memory_order_relaxed);
    while (candidate > seen &&
           !value.compare_exchange_weak(seen, candidate, std::memory_order_relaxed)) {
    }
}
} // namespace

void MicrophoneProbe::PeakMeter::offer(float peak)
{
    raiseTo(m_largest, peak);
    raiseTo(m_recent, peak);
}

float MicrophoneProbe::PeakMeter::takeRecent()
{
    return m_recent.exchange(-1.0f, std::memory_order_relaxed);
}

struct MicrophoneProbe::Run {
    Level level;
    Completion done;
    // The run may end inside its own timer: the anchor of its timers goes later.
    std::unique_ptr<QObject, DeleteLater> anchor{new QObject};
    std::shared_ptr<PeakMeter> peaks = std::make_shared<PeakMeter>();
    std::unique_ptr<AudioEngine> engine;
    TaskHandlePtr levels;
    TaskHandlePtr deadline;

    ~Run()
    {
        levels.reset();
        deadline.reset();
        if (engine)
            engine->stopCapture(); // returns once the capture callback is done for good
    }
};

MicrophoneProbe::MicrophoneProbe(AudioDeviceIO& io, Clock& clock) : m_io(io), m_clock(clock) {}

MicrophoneProbe::~MicrophoneProbe() = default;

bool MicrophoneProbe::isRunning() const
{
    return m_run != nullptr;
}

void MicrophoneProbe::run(std::uint32_t deviceID, Level level, Completion done)
{
    if (m_run) {
        if (done)
            done(AppError(busyMessage()));
        return;
    }
    AudioEngineRequest request;
    request.inputDeviceID = deviceID;
    request.blockFrames = kBlockFrames;
    Result<std::unique_ptr<AudioEngine>> opened = m_io.open(request);
    if (!opened) {
        // A device that is not there (or has no input) is "unavailable"; anything the
        // platform refuses is a failure to open it.
        const bool missing = opened.error() == AudioDeviceIO::deviceUnavailable();
        if (done)
            done(AppError(missing ? unavailableMessage() : openFailedMessage()));
        return;
    }
    std::unique_ptr<AudioEngine> engine = std::move(opened).value();
    const DeviceFormat format = engine->captureFormat();
    if (!format.isUsable()) {
        if (done)
            done(AppError(noFormatMessage()));
        return;
    }

    auto run = std::make_unique<Run>();
    run->level = std::move(level);
    run->done = std::move(done);
    const int channels = format.channels;
    engine->setCaptureCallback(
        [peaks = run->peaks, channels](const float* interleaved, int frames) {
            float peak = 0;
            for (int i = 0; i < frames; ++i) {
                const float x = std::fabs(interleaved[std::size_t(i) * std::size_t(channels)]);
                if (x > peak) // NaN never wins
                    peak = x;
            }
            peaks->offer(peak);
        });
    if (Status failed = engine->startCapture()) {
        engine->stopCapture();
        Completion finishWith = std::move(run->done);
        run.reset();
        engine.reset();
        if (finishWith)
            finishWith(*failed);
        return;
    }
    run->engine = std::move(engine);
    m_run = std::move(run);
    m_run->levels =
        m_clock.repeat(kLevelPeriodSeconds, m_run->anchor.get(), [this] { passLevel(); });
    m_run->deadline = m_clock.schedule(kListenSeconds, m_run->anchor.get(), [this] { finish(); });
}

void MicrophoneProbe::passLevel()
{
    const float recent = m_run->peaks->takeRecent();
    if (recent >= 0 && m_run->level)
        m_run->level(double(recent));
}

void MicrophoneProbe::finish()
{
    std::unique_ptr<Run> finished = std::move(m_run);
    finished->levels.reset();
    finished->deadline.reset();
    finished->engine->stopCapture();
    const float recent = finished->peaks->takeRecent();
    if (recent >= 0 && finished->level)
        finished->level(double(recent));
    const bool heard = double(finished->peaks->largest()) > kHeardThreshold;
    Completion done = std::move(finished->done);
    finished.reset();
    if (done)
        done(heard);
}

} // namespace vemira
