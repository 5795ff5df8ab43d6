// Capture and playback on real PulseAudio devices: the bridge's round trip through a
// virtual device, echo cancellation, a device that vanishes, stop that really stops.
#include "audio/AudioBridge.h"
#include "audio/AudioSystem.h"
#include "audio/ProbeMeter.h"
#include "audio/VoiceOutputChain.h"
#include "audio/fakes/CapturedAudio.h"
#include "support/PulseDaemon.h"

#include <QTest>
#include <QThread>
#include <algorithm>
#include <atomic>
#include <cmath>

using namespace Qt::StringLiterals;
using namespace vemira;
using namespace vemira::testing;

class PulseEngineTest : public QObject {
    Q_OBJECT

private:
    PulseDaemon m_daemon;
    std::unique_ptr<AudioSystem> m_system;
    std::unique_ptr<AudioDeviceIO> m_io;

private Q_SLOTS:
    void initTestCase()
    {
        const QString failure = m_daemon.start();
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        m_system = createPlatformAudioSystem();
        m_io = createPlatformAudioDeviceIO();
    }

    // A tone enqueued on the bridge leaves through the voice chain, goes round the device and
    // comes back on onPCM at its level: 3276/32768 after the chain's 0.85 headroom. Both on
    // the virtual device's 48 kHz stereo and on a 44.1 kHz mono device.
    void bridgeBringsAToneBackAtItsAmplitude()
    {
        const int module = m_daemon.loadNullSink(u"vemira.mono"_s, u"Mono 44,1"_s, 44100, 1);
        QVERIFY(module >= 0);
        const QList<SoundDevice> devices = m_system->devices();
        for (const QString& uid : {BrelianDevices::callUID(), u"vemira.mono"_s}) {
            const std::optional<SoundDevice> device = byUID(devices, uid);
            QVERIFY(device);
            Received received;
            AudioBridge bridge(*m_io, *m_system);
            bridge.onPCM = [&received](const QByteArray& wire) { received.add(wire); };
            const Status started = bridge.start(device->id, device->id, false);
            QVERIFY2(!started, started ? qPrintable(started->message()) : "");

            bridge.enqueue(tonePCM(2.0, 733.0, 3276.0));
            std::vector<float> heard;
            std::size_t onset = 0;
            // Back from the device for a second and a half after its first sound.
            QTRY_VERIFY_WITH_TIMEOUT(
                [&] {
                    heard = wireToFloat(received.all());
                    for (onset = 0; onset < heard.size() && std::fabs(heard[onset]) < 0.02f;)
                        ++onset;
                    return onset + 36000 < heard.size();
                }(),
                10000);
            QVERIFY2(!bridge.needsRestart(), qPrintable(bridge.flowStatus()));
            bridge.stop();
            // One second from the middle of the tone, away from the resamplers' settling, in
            // 20 ms windows: the median is the level, whatever a loaded machine's scheduling
            // did to a window or two.
            std::vector<double> levels;
            for (std::size_t w = onset + 6000; w + 480 <= onset + 30000; w += 480)
                levels.push_back(toneAmplitude(heard, w, 480, 733.0, 24000.0));
            std::sort(levels.begin(), levels.end());
            const double amplitude = levels[levels.size() / 2];
            const double expected = 3276.0 / 32768.0 * 0.85;
            QVERIFY2(std::fabs(amplitude - expected) < 0.02 * expected,
                     qPrintable(u"%1: %2 instead of %3"_s.arg(uid).arg(amplitude).arg(expected)));
            // Nothing else is mixed in: the other probe tone's bin stays empty.
            QVERIFY(toneAmplitude(heard, onset + 6000, 24000, 1103.0, 24000.0) < 0.001);
        }
        QVERIFY(m_daemon.unloadModule(module));
    }

    // A device that disappears stops our streams by itself, and reports no format, so the
    // owner rebuilds; stop() returns only once no callback runs any more.
    void followsTheDeviceLifecycle()
    {
        const int module = m_daemon.loadNullSink(u"vemira.gone"_s, u"Éphémère"_s, 48000, 2);
        const std::optional<SoundDevice> device = byUID(m_system->devices(), u"vemira.gone"_s);
        QVERIFY(device);
        AudioEngineRequest request;
        request.inputDeviceID = device->id;
        request.outputDeviceID = device->id;
        std::unique_ptr<AudioEngine> engine = std::move(m_io->open(request)).value();
        std::atomic<int> blocks{0};
        std::atomic<int> rendered{0};
        std::atomic<int> inside{0};
        std::atomic<bool> oddBlock{false};
        engine->setCaptureCallback([&](const float*, int frames) {
            if (frames <= 0 || frames > AudioEngine::maxBlockFrames)
                oddBlock.store(true);
            inside.fetch_add(1);
            QThread::usleep(2000);
            blocks.fetch_add(1);
            inside.fetch_sub(1);
        });
        engine->setRenderCallback(
            [&rendered, channels = engine->playbackFormat().channels](float* b, int frames) {
                std::fill(b, b + frames * channels, 0.0f);
                rendered.fetch_add(1);
            });
        QVERIFY(!engine->startCapture());
        QVERIFY(!engine->startPlayback());
        QTRY_VERIFY(blocks.load() > 0);
        engine->stopCapture();
        QCOMPARE(inside.load(), 0);
        const int afterStop = blocks.load();
        // The device's clock runs on: ten playback periods, and no capture block in them.
        const int renderedAtStop = rendered.load();
        QTRY_VERIFY(rendered.load() > renderedAtStop + 10);
        QCOMPARE(blocks.load(), afterStop);
        QVERIFY(!engine->captureRunning());
        QVERIFY(engine->playbackRunning());
        QVERIFY(!engine->startCapture()); // starts again on the same engine
        QTRY_VERIFY(blocks.load() > afterStop);

        QVERIFY(!oddBlock.load());

        QVERIFY(m_daemon.unloadModule(module));
        QTRY_VERIFY_WITH_TIMEOUT(!engine->captureRunning() && !engine->playbackRunning(), 3000);
        QVERIFY(!engine->captureFormat().isUsable());
        QVERIFY(!engine->playbackFormat().isUsable());
        const Status again = engine->startCapture();
        QVERIFY(again);
    }

    // Ids that are not there, or a direction a device does not have, are refused.
    void refusesDevicesItCannotUse()
    {
        AudioEngineRequest unknown;
        unknown.inputDeviceID = 4242u;
        Result<std::unique_ptr<AudioEngine>> opened = m_io->open(unknown);
        QVERIFY(!opened);
        QCOMPARE(opened.error().message(), u"Périphérique audio indisponible."_s);

        const int index = m_daemon.loadNullSource(u"vemira.mic"_s);
        QVERIFY(index >= 0);
        std::optional<SoundDevice> mic;
        // pipewire-pulse shows a device a moment after loading it.
        QTRY_VERIFY((mic = byUID(m_system->devices(), u"vemira.mic"_s)));
        QVERIFY(mic && mic->input && !mic->output);
        AudioEngineRequest playToMic;
        playToMic.outputDeviceID = mic->id;
        QCOMPARE(m_io->open(playToMic).error().message(), u"Périphérique audio indisponible."_s);
        AudioEngineRequest listen;
        listen.inputDeviceID = mic->id;
        opened = m_io->open(listen);
        QVERIFY(opened);
        QVERIFY(!opened.value()->startCapture());
        QVERIFY(opened.value()->captureRunning());
        QVERIFY(!opened.value()->hasPlayback());
        opened.value()->stopCapture();
        QVERIFY(m_daemon.unloadModule(index));
    }
};

QTEST_GUILESS_MAIN(PulseEngineTest)
#include "tst_pulse_engine.moc"
