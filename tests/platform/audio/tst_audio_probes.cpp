// The route and microphone probes on a real PulseAudio daemon with the virtual devices.
#include "audio/AudioDeviceIO.h"
#include "audio/AudioSystem.h"
#include "audio/fakes/CapturedAudio.h"
#include "audio/probes/AudioRouteProbe.h"
#include "audio/probes/MicrophoneProbe.h"
#include "core/Clock.h"
#include "support/PulseDaemon.h"

#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>
#include <cmath>
#include <numbers>

using namespace Qt::StringLiterals;
using namespace vemira;

namespace {
const QString callSink = u"com.brelian.audio.call"_s;
const QString voiceSink = u"com.brelian.audio.voice"_s;

struct Outcome {
    bool finished = false;
    Status status;
    double seconds = 0;
};
} // namespace

class AudioProbesTest : public QObject {
    Q_OBJECT

private:
    PulseDaemon m_daemon;
    QTemporaryDir m_temp;
    std::unique_ptr<AudioSystem> m_system;
    std::unique_ptr<AudioDeviceIO> m_io;

    // Runs the route probe to its end, noting how long it took.
    Outcome probeRoutes(const QList<SoundDevice>& devices)
    {
        AudioRouteProbe probe(*m_io, *m_system, SystemClock::instance());
        Outcome outcome;
        QElapsedTimer timer;
        timer.start();
        probe.run(devices, [&](Status status) {
            outcome.finished = true;
            outcome.status = std::move(status);
            outcome.seconds = double(timer.elapsed()) / 1000.0;
        });
        (void)QTest::qWaitFor([&] { return outcome.finished; }, 40000);
        return outcome;
    }

    QStringList probeFolders() const
    {
        return QDir(m_temp.path())
            .entryList({u"brelian-probe-*"_s}, QDir::Dirs | QDir::NoDotAndDotDot);
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString failure = m_daemon.start();
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        QVERIFY(m_temp.isValid());
        // The probes' recordings go to the temporary directory: ours, so we can see them go.
        qputenv("TMPDIR", m_temp.path().toLocal8Bit());
        m_system = createPlatformAudioSystem();
        m_io = createPlatformAudioDeviceIO();
    }

    // Both circuits carry their tone: the probe passes after testing each for six seconds,
    // leaving no stream and no temporary folder behind.
    void routeProbePassesOnBothCircuits()
    {
        const Outcome outcome = probeRoutes(m_system->devices());
        QVERIFY(outcome.finished);
        QVERIFY2(!outcome.status, outcome.status ? qPrintable(outcome.status->message()) : "");
        QVERIFY(outcome.seconds > 2 * 6.3);
        QCOMPARE(m_daemon.streamCount(), 0);
        QCOMPARE(probeFolders(), QStringList());
    }

    // A circuit whose device gives back silence fails with the silence sentence naming it;
    // when the first circuit fails, the second is never tested.
    void silentCircuitFailsWithItsName_data()
    {
        QTest::addColumn<QString>("sink");
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("bothTested");
        QTest::newRow("voice") << voiceSink << u"Brelian — IA vers appel"_s << true;
        QTest::newRow("call") << callSink << u"Brelian — Appel vers IA"_s << false;
    }

    void silentCircuitFailsWithItsName()
    {
        QFETCH(QString, sink);
        QFETCH(QString, name);
        QFETCH(bool, bothTested);
        m_daemon.pactl({u"set-sink-mute"_s, sink, u"1"_s});
        const Outcome outcome = probeRoutes(m_system->devices());
        m_daemon.pactl({u"set-sink-mute"_s, sink, u"0"_s});
        QVERIFY(outcome.finished && outcome.status);
        QCOMPARE(outcome.status->message(),
                 u"Le signal de test ne traverse pas « %1 ». Le pilote est visible "
                 u"mais son transport audio doit être corrigé. Le standard reste "
                 u"désactivé."_s.arg(name));
        QVERIFY(bothTested ? outcome.seconds > 2 * 6.3 : outcome.seconds < 6.3 + 2.5);
        QCOMPARE(probeFolders(), QStringList());
    }

    // A device that does not move samples (suspended) gives an incomplete test, with the flow
    // status and the recorded length in the sentence.
    void stalledCircuitIsReportedIncomplete()
    {
        if (m_daemon.isPipeWire())
            QSKIP("pipewire-pulse resumes a suspended sink as soon as a stream connects");
        m_daemon.pactl({u"suspend-sink"_s, callSink, u"1"_s});
        const Outcome outcome = probeRoutes(m_system->devices());
        m_daemon.pactl({u"suspend-sink"_s, callSink, u"0"_s});
        QVERIFY(outcome.finished && outcome.status);
        const QString message = outcome.status->message();
        QVERIFY2(message.startsWith(u"Test incomplet de « Brelian — Appel vers IA » : "_s),
                 qPrintable(message));
        QVERIFY2(message.endsWith(
                     u", enregistrement 0.0 s sur 6 s attendues. Le standard reste désactivé."_s),
                 qPrintable(message));
        QVERIFY(message.contains(u"moteurs entrée/sortie : "_s));
        QCOMPARE(probeFolders(), QStringList());
    }

    // Without the driver's pair nothing starts and the module sentence comes at once.
    void missingDevicesFailAtOnce()
    {
        QList<SoundDevice> withoutVoice;
        for (const SoundDevice& device : m_system->devices()) {
            if (device.uid != BrelianDevices::voiceUID())
                withoutVoice.append(device);
        }
        for (const QList<SoundDevice>& devices : {withoutVoice, QList<SoundDevice>()}) {
            AudioRouteProbe probe(*m_io, *m_system, SystemClock::instance());
            std::optional<Status> answer;
            probe.run(devices, [&](Status status) { answer = std::move(status); });
            QVERIFY(answer.has_value()); // before run() returned
            QVERIFY(answer->has_value());
            QCOMPARE((*answer)->message(),
                     u"Les périphériques audio Vemira sont absents. Créez-les à "
                     u"l’étape « Installer le son » de la configuration guidée."_s);
            QVERIFY(!probe.isRunning());
            QCOMPARE(m_daemon.streamCount(), 0);
        }
    }

    // Abandoning a probe midway stops its streams and removes its folder.
    void abandonedProbeLeavesNothing()
    {
        {
            AudioRouteProbe probe(*m_io, *m_system, SystemClock::instance());
            bool called = false;
            probe.run(m_system->devices(), [&](Status) { called = true; });
            QVERIFY(probe.isRunning());
            QTRY_VERIFY(m_daemon.streamCount() > 0);
            QCOMPARE(probeFolders().size(), 1);
            QVERIFY(!called);
        }
        QCOMPARE(probeFolders(), QStringList());
        QTRY_COMPARE(m_daemon.streamCount(), 0);
    }

    // The microphone probe hears a device with sound and not a silent one; both listen at the
    // same time for their five seconds. A missing device is refused at once.
    void microphoneProbeTellsSoundFromSilence()
    {
        const std::optional<SoundDevice> call = testing::byUID(m_system->devices(), callSink);
        const std::optional<SoundDevice> voice = testing::byUID(m_system->devices(), voiceSink);
        QVERIFY(call && voice);

        // Someone speaks into the call device: 0.05 full scale.
        AudioEngineRequest speak;
        speak.outputDeviceID = call->id;
        std::unique_ptr<AudioEngine> speaker = std::move(m_io->open(speak)).value();
        const DeviceFormat format = speaker->playbackFormat();
        std::int64_t index = 0;
        speaker->setRenderCallback([&index, format](float* b, int n) {
            for (int i = 0; i < n; ++i, ++index) {
                const float v =
                    0.05f *
                    float(std::sin(2 * std::numbers::pi * 440 * double(index) / format.sampleRate));
                for (int c = 0; c < format.channels; ++c)
                    b[i * format.channels + c] = v;
            }
        });
        QVERIFY(!speaker->startPlayback());

        MicrophoneProbe hearing(*m_io, SystemClock::instance());
        MicrophoneProbe silent(*m_io, SystemClock::instance());
        QList<double> heardLevels, silentLevels;
        std::optional<Result<bool>> heard, quiet;
        QElapsedTimer timer;
        timer.start();
        hearing.run(
            call->id, [&](double peak) { heardLevels.append(peak); },
            [&](Result<bool> result) { heard = std::move(result); });
        silent.run(
            voice->id, [&](double peak) { silentLevels.append(peak); },
            [&](Result<bool> result) { quiet = std::move(result); });
        QVERIFY(QTest::qWaitFor([&] { return heard && quiet; }, 15000));
        speaker->stopPlayback();
        QVERIFY(timer.elapsed() >= 5000);
        QVERIFY(heard->ok() && heard->value());
        QVERIFY(quiet->ok() && !quiet->value());
        QVERIFY(heardLevels.size() > 20); // every 50 ms or so
        const double loudest = *std::max_element(heardLevels.begin(), heardLevels.end());
        QVERIFY2(std::fabs(loudest - 0.05) < 0.005, qPrintable(QString::number(loudest)));
        QVERIFY(!silentLevels.isEmpty());
        QCOMPARE(*std::max_element(silentLevels.begin(), silentLevels.end()), 0.0);
        QCOMPARE(m_daemon.streamCount(), 0);

        std::optional<Result<bool>> missing;
        hearing.run(4242u, {}, [&](Result<bool> result) { missing = std::move(result); });
        QVERIFY(missing && !missing->ok());
        QCOMPARE(missing->error().message(), u"Microphone indisponible."_s);
        QVERIFY(!hearing.isRunning());
    }
};

QTEST_GUILESS_MAIN(AudioProbesTest)
#include "tst_audio_probes.moc"
