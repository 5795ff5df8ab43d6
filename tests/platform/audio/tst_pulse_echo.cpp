// Echo cancellation for a conversation on the computer, live on a PulseAudio device: timing
// matters here (the canceller follows the real buffers), so it runs without sanitizers, whose
// slowness makes the device run dry; the alignment logic itself is tested deterministically in
// tst_echo_canceller.cpp.
#include "audio/AudioBridge.h"
#include "audio/AudioSystem.h"
#include "audio/ProbeMeter.h"
#include "audio/VoiceOutputChain.h"
#include "audio/fakes/CapturedAudio.h"
#include "support/PulseDaemon.h"

#include <QTest>
#include <cmath>
#include <numbers>

using namespace Qt::StringLiterals;
using namespace vemira;
using namespace vemira::testing;

class PulseEchoTest : public QObject {
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

    // For a conversation on the computer, what we play and hear back is removed, while a
    // voice in the room (another program playing into the same device) is kept.
    void echoCancellationRemovesOurOwnVoiceOnly()
    {
        const std::optional<SoundDevice> desk = byUID(m_system->devices(), u"vemira.desk"_s);
        QVERIFY(desk);
        AudioEngineRequest duplex;
        duplex.inputDeviceID = desk->id;
        duplex.outputDeviceID = desk->id;
        duplex.conversationOnComputer = true;
        Result<std::unique_ptr<AudioEngine>> opened = m_io->open(duplex);
        QVERIFY(opened);
        std::unique_ptr<AudioEngine> engine = std::move(opened).value();
        QVERIFY(engine->isDuplex());
        const DeviceFormat in = engine->captureFormat();
        const DeviceFormat out = engine->playbackFormat();
        QCOMPARE(in.channels, 1);
        QCOMPARE(in.sampleRate, out.sampleRate);

        AudioEngineRequest room;
        room.outputDeviceID = desk->id;
        std::unique_ptr<AudioEngine> speaker = std::move(m_io->open(room)).value();

        // Far end: broadband noise in 0.6 s phrases, like speech as far as an echo canceller
        // is concerned (a steady tone could be learnt away by the noise suppressor alone).
        // Room: 1103 Hz in half-second bursts.
        const double rate = out.sampleRate;
        std::int64_t farIndex = 0, roomIndex = 0;
        std::uint32_t noise = 12345;
        engine->setRenderCallback(
            [&farIndex, &noise, rate, channels = out.channels](float* b, int n) {
                for (int i = 0; i < n; ++i, ++farIndex) {
                    noise = noise * 1664525u + 1013904223u;
                    const bool on = (farIndex * 10 / std::int64_t(rate)) % 7 != 6;
                    const float white = float(std::int32_t(noise)) / 2147483648.0f; // ±1
                    const float v = on ? 0.1f * white : 0.0f;
                    for (int c = 0; c < channels; ++c)
                        b[i * channels + c] = v;
                }
            });
        const int roomChannels = speaker->playbackFormat().channels;
        speaker->setRenderCallback([&roomIndex, rate, roomChannels](float* b, int n) {
            for (int i = 0; i < n; ++i, ++roomIndex) {
                const bool on = (roomIndex / std::int64_t(rate / 2)) % 2 == 0;
                const float v =
                    on ? 0.1f * float(std::sin(2 * std::numbers::pi * 1103 * roomIndex / rate))
                       : 0.0f;
                for (int c = 0; c < roomChannels; ++c)
                    b[i * roomChannels + c] = v;
            }
        });
        Samples heard;
        engine->setCaptureCallback(
            [&heard](const float* b, int frames) { heard.add(b, frames, 1); });
        QVERIFY(!engine->startPlayback());
        QVERIFY(!engine->startCapture());
        // Three seconds of the device's own time for the canceller to converge on the echo path,
        // then three more with the room's voice.
        const auto captured = [&heard] { return heard.all().size(); };
        QTRY_VERIFY_WITH_TIMEOUT(captured() >= std::size_t(3 * rate), 10000);
        const std::size_t converged = captured();
        QVERIFY(!speaker->startPlayback());
        QTRY_VERIFY_WITH_TIMEOUT(captured() >= converged + std::size_t(3 * rate), 10000);
        speaker->stopPlayback();
        engine->stopCapture();
        engine->stopPlayback();

        const std::vector<float> x = heard.all();
        QVERIFY(x.size() > converged + std::size_t(2.5 * rate));
        const auto second = std::size_t(rate);
        // The played noise has an RMS of 0.1/√3 = 0.058 while on.
        const double echoAlone = rms(x, converged - second, second);
        const double voice = toneAmplitude(x, x.size() - 2 * second, 2 * second, 1103, rate);
        QVERIFY2(echoAlone < 0.058 / 10, qPrintable(QString::number(echoAlone))); // ≥ 20 dB
        // Double talk: the residual-echo suppressor ducks the room voice, but never to nothing.
        QVERIFY2(voice > 0.004, qPrintable(QString::number(voice)));
    }
};

QTEST_GUILESS_MAIN(PulseEchoTest)
#include "tst_pulse_echo.moc"
