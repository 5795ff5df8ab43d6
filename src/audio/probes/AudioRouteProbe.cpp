#include "audio/probes/AudioRouteProbe.h"

#include "audio/AudioBridge.h"
#include "audio/AudioFiles.h"
#include "audio/CallAudioRecorder.h"
#include "audio/ProbeMeter.h"
#include "core/Clock.h"

#include <QDir>
#include <QObject>
#include <QTemporaryDir>

namespace vemira {

namespace {
struct DeleteLater {
    void operator()(QObject* object) const { object->deleteLater(); }
};
} // namespace

// One probe in progress. Members are destroyed bottom-up: the bridge stops feeding the meter
// and the recorder first, the recorder then drains its worker (which may still post to
// `anchor`), and only then do the folder and the anchor go.
struct AudioRouteProbe::Run {
    QList<Circuit> circuits;
    Completion done;
    // Main-thread anchor of the timers and of the hop back from the recorder. Deleted later:
    // the run may end inside one of its own timer or queued calls.
    std::unique_ptr<QObject, DeleteLater> anchor{new QObject};
    // Expires with the run: a queued call that arrives after it is ignored.
    std::shared_ptr<int> alive = std::make_shared<int>(0);
    std::unique_ptr<QTemporaryDir> folder;
    std::shared_ptr<CallAudioRecorder> recorder;
    std::shared_ptr<ProbeMeter> meter;
    std::unique_ptr<AudioBridge> bridge;
    TaskHandlePtr timer;

    void endCircuit()
    {
        timer.reset();
        if (bridge)
            bridge->stop();
        bridge.reset();
        meter.reset();
        recorder.reset();
        folder.reset();
    }
};

AudioRouteProbe::AudioRouteProbe(AudioDeviceIO& io, AudioSystem& system, Clock& clock)
    : m_io(io), m_system(system), m_clock(clock)
{}

AudioRouteProbe::~AudioRouteProbe() = default;

bool AudioRouteProbe::isRunning() const
{
    return m_run != nullptr;
}

QString AudioRouteProbe::incompleteMessage(const QString& deviceName, const QString& flowStatus,
                                           std::int64_t recordedFrames)
{
    const QString seconds = QString::asprintf("%.1f", double(recordedFrames) / 24000.0);
    return QStringLiteral("Test incomplet de « ") + deviceName + QStringLiteral(" » : ") +
           flowStatus + QStringLiteral(", enregistrement ") + seconds +
           QStringLiteral(" s sur 6 s attendues. Le standard reste désactivé.");
}

QString AudioRouteProbe::silenceMessage(const QString& deviceName)
{
    return QStringLiteral("Le signal de test ne traverse pas « ") + deviceName +
           QStringLiteral(" ». Le pilote est visible mais son transport audio doit être "
                          "corrigé. Le standard reste désactivé.");
}

Status AudioRouteProbe::judge(const Circuit& circuit, const Observation& seen)
{
    const bool complete = !seen.restartRequested && seen.capturedFrames >= kMinimumFrames &&
                          seen.playedFrames >= kMinimumFrames &&
                          seen.recordedFrames >= kMinimumFrames;
    if (!complete)
        return AppError(
            incompleteMessage(circuit.deviceName, seen.flowStatus, seen.recordedFrames));
    if (seen.meteredSamples < ProbeTone::kMinimumSamples ||
        !(seen.amplitude > ProbeTone::kMinimumAmplitude))
        return AppError(silenceMessage(circuit.deviceName));
    return std::nullopt;
}

void AudioRouteProbe::run(const QList<SoundDevice>& devices, Completion done)
{
    if (m_run) {
        if (done)
            done(AppError(busyMessage()));
        return;
    }
    const std::optional<BrelianDevices::Pair> pair = BrelianDevices::pair(devices);
    if (!pair) {
        if (done)
            done(AppError(moduleMissingMessage()));
        return;
    }
    m_run = std::make_unique<Run>();
    m_run->done = std::move(done);
    m_run->circuits = {Circuit{pair->call.id, pair->call.name, ProbeTone::kCallFrequency},
                       Circuit{pair->voice.id, pair->voice.name, ProbeTone::kVoiceFrequency}};
    startCircuit(0);
}

void AudioRouteProbe::startCircuit(int index)
{
    Run& run = *m_run;
    const Circuit& circuit = run.circuits.at(index);
    run.meter = std::make_shared<ProbeMeter>(circuit.frequency);
    run.bridge = std::make_unique<AudioBridge>(m_io, m_system);
    run.bridge->onPCM = [meter = run.meter](const QByteArray& wire) { meter->append(wire); };

    run.folder = std::make_unique<QTemporaryDir>(
        QDir::temp().filePath(QStringLiteral("brelian-probe-XXXXXX")));
    if (!run.folder->isValid()) {
        complete(AppError(QStringLiteral("Impossible de créer le dossier temporaire du test "
                                         "audio.")));
        return;
    }
    Result<std::unique_ptr<CallAudioRecorder>> recorder =
        CallAudioRecorder::create(run.folder->filePath(QStringLiteral("probe.wav")));
    if (!recorder) {
        complete(recorder.error());
        return;
    }
    run.recorder = std::shared_ptr<CallAudioRecorder>(std::move(recorder).value());
    run.bridge->setRecorder(run.recorder);

    // The tone goes into the device and must come back out of it.
    if (Status failed = run.bridge->start(circuit.deviceID, circuit.deviceID, false)) {
        complete(*failed);
        return;
    }
    run.timer = m_clock.schedule(kSettleSeconds, run.anchor.get(), [this, index] {
        const Circuit& current = m_run->circuits.at(index);
        m_run->bridge->enqueue(ProbeTone::testTone(current.frequency));
        m_run->timer = m_clock.schedule(kListenSeconds, m_run->anchor.get(),
                                        [this, index] { finishCircuit(index); });
    });
}

void AudioRouteProbe::finishCircuit(int index)
{
    Run& run = *m_run;
    Observation seen;
    // Noted while the bridge still runs: once stopped it would always ask for a restart.
    seen.flowStatus = run.bridge->flowStatus();
    seen.restartRequested = run.bridge->needsRestart();
    const AudioFlowHealth::Snapshot flow = run.bridge->health().snapshot();
    seen.capturedFrames = flow.inputFrames;
    seen.playedFrames = flow.outputFrames;
    run.bridge->stop();
    seen.meteredSamples = run.meter->count();
    seen.amplitude = run.meter->amplitude();

    // The recorder finishes on its own worker; its answer comes back here through the anchor.
    QObject* anchor = run.anchor.get();
    std::weak_ptr<int> alive = run.alive;
    run.recorder->finish([this, anchor, alive, index, seen](Result<QString> file) mutable {
        seen.recordedFrames = 0;
        if (file) {
            const Result<std::int64_t> frames = AudioFiles::wavFrames(file.value());
            if (frames)
                seen.recordedFrames = frames.value();
        }
        QMetaObject::invokeMethod(
            anchor,
            [this, alive, index, seen] {
                if (!alive.expired())
                    concludeCircuit(index, seen);
            },
            Qt::QueuedConnection);
    });
}

void AudioRouteProbe::concludeCircuit(int index, const Observation& seen)
{
    // Whatever the outcome, this circuit's bridge is stopped and its folder removed now.
    m_run->endCircuit();
    if (Status failed = judge(m_run->circuits.at(index), seen)) {
        complete(failed);
        return;
    }
    if (index + 1 < m_run->circuits.size()) {
        startCircuit(index + 1);
        return;
    }
    complete(std::nullopt);
}

void AudioRouteProbe::complete(Status outcome)
{
    std::unique_ptr<Run> finished = std::move(m_run);
    finished->endCircuit();
    Completion done = std::move(finished->done);
    finished.reset();
    if (done)
        done(std::move(outcome));
}

} // namespace vemira
