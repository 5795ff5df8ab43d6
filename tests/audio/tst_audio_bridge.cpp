// The call audio bridge on a fake sound card whose devices run their own real threads.
#include "audio/AudioBridge.h"
#include "audio/AudioFiles.h"
#include "audio/CallAudioRecorder.h"
#include "audio/ProbeMeter.h"
#include "audio/VoiceOutputChain.h"
#include "audio/fakes/CapturedAudio.h"
#include "audio/fakes/FakeAudioDevices.h"
#include "core/PlatformWording.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <cmath>
#include <future>

using namespace Qt::StringLiterals;
using namespace vemira;
using vemira::testing::FakeAudioDeviceIO;
using vemira::testing::FakeAudioSystem;
using vemira::testing::Received;
using vemira::testing::toneAmplitude;
using vemira::testing::waitFor;

namespace {

constexpr std::uint32_t kCall = 10, kVoice = 11, kMacMic = 20, kMacSpeakers = 21, kHeadsetMic = 30,
                        kHeadphones = 31;
const auto dIn = AudioSelector::defaultInput;
const auto dOut = AudioSelector::defaultOutput;

// The strongest quarter-second of a tone: its level while it flows, whatever gaps surround it.
double bestAmplitude(const std::vector<float>& x, double frequency, double rate)
{
    const auto window = std::size_t(rate / 4);
    double best = 0;
    for (std::size_t from = 0; from + window <= x.size(); from += window / 8)
        best = std::max(best, toneAmplitude(x, from, window, frequency, rate));
    return best;
}

std::size_t firstSound(const std::vector<float>& x, float above = 0.01f)
{
    for (std::size_t i = 0; i < x.size(); ++i)
        if (std::fabs(x[i]) > above)
            return i;
    return x.size();
}

struct Rig {
    FakeAudioSystem system;
    FakeAudioDeviceIO io;
    Rig()
    {
        system.addDevice(kCall, u"Brelian — Appel vers IA"_s, BrelianDevices::callUID(), true, true,
                         AudioTransport::virtualDevice);
        system.addDevice(kVoice, u"Brelian — IA vers appel"_s, BrelianDevices::voiceUID(), true,
                         true, AudioTransport::virtualDevice);
        system.addDevice(kMacMic, u"Micro MacBook"_s, u"mic"_s, true, false,
                         AudioTransport::builtIn);
        system.addDevice(kMacSpeakers, u"Haut-parleurs MacBook"_s, u"spk"_s, false, true,
                         AudioTransport::builtIn);
        system.addDevice(kHeadsetMic, u"Micro du casque"_s, u"hsm"_s, true, false,
                         AudioTransport::usb);
        system.addDevice(kHeadphones, u"Casque"_s, u"hp"_s, false, true, AudioTransport::usb);
        system.defaults = {{dIn, kMacMic}, {dOut, kMacSpeakers}};
        io.addDevice(kCall, {48000, 2}, {48000, 2});
        io.addDevice(kVoice, {48000, 2}, {44100, 2});
        io.addDevice(kMacMic, {48000, 1}, {});
        io.addDevice(kMacSpeakers, {}, {48000, 2});
        io.addDevice(kHeadsetMic, {16000, 1}, {});
        io.addDevice(kHeadphones, {}, {48000, 2});
    }
};

QByteArray slice(const QByteArray& tone, double fromSeconds, double seconds)
{
    return tone.mid(qsizetype(fromSeconds * 48000), qsizetype(seconds * 48000));
}

} // namespace

class AudioBridgeTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // The texts quoted here are the macOS ones, word for word: selecting them on every
    // platform keeps these cases a guard against their drift.
    void initTestCase() { PlatformWording::select(WordingPlatform::MacOS); }
    void phoneCallCarriesBothWaysAndIsRecorded();
    void interruptAndStallAccounting();
    void equaliserChangesApplyMidCall();
    void everyFailureReachesTheOwner();
    void stoppedEnginesResumeUnlessTheFormatChanged();
    void interventionConnectsTheManager_data();
    void interventionConnectsTheManager();
    void conversationOnTheMacIsLimited();
};

void AudioBridgeTest::phoneCallCarriesBothWaysAndIsRecorded()
{
    Rig rig;
    QTemporaryDir dir;
    const QString wav = dir.filePath(u"appel.wav"_s);
    std::shared_ptr<CallAudioRecorder> recorder = std::move(CallAudioRecorder::create(wav)).value();

    AudioBridge bridge(rig.io, rig.system);
    QVERIFY(bridge.needsRestart()); // idle: nothing runs
    Received received;
    ProbeMeter caller(ProbeTone::kCallFrequency);
    bridge.onPCM = [&](const QByteArray& wire) {
        received.add(wire);
        if (caller.count() < 24000)
            caller.append(wire);
    };
    bridge.setRecorder(recorder);
    rig.io.feedTone(kCall, ProbeTone::kCallFrequency, 0.5, 3.0);
    const Status started = bridge.start(kCall, kVoice, false);
    QVERIFY2(!started, started ? qPrintable(started->message()) : "");
    QCOMPARE(bridge.routeDescription(),
             u"entrée : Brelian — Appel vers IA / sortie : Brelian — IA vers appel "
             u"· source : 2 canaux, 48000 Hz"_s);
    QVERIFY(!bridge.needsRestart());

    // The AI speaks one second of tone in 100 ms deltas.
    const QByteArray tone = ProbeTone::testTone(ProbeTone::kVoiceFrequency);
    for (int i = 0; i < 10; ++i)
        bridge.enqueue(slice(tone, 1.0 + 0.1 * i, 0.1));
    QCOMPARE(bridge.health().snapshot().pending, 10);
    QVERIFY(waitFor([&] { return bridge.health().snapshot().pending == 0; }, 5));
    QVERIFY(waitFor([&] { return caller.count() >= 24000; }, 5));

    // The caller's tone reached the AI at its level, as 24 kHz wire audio.
    QVERIFY2(std::fabs(caller.amplitude() - 0.5) < 0.01,
             qPrintable(QString::number(caller.amplitude())));
    const auto [raw, converted] = bridge.inputLevels();
    QVERIFY(raw > 0.49 && raw <= 0.5);
    QVERIFY(converted > 0.45 && converted < 0.51);

    // The AI's voice left on the voice device at 44.1 kHz, through the 0.85 headroom, on both
    // channels alike.
    QVERIFY(waitFor([&] { return rig.io.playedFrames(kVoice) > 44100 * 3 / 2; }, 5));
    const auto both = rig.io.played(kVoice);
    std::vector<float> left, right;
    for (std::size_t i = 0; i + 1 < both.size(); i += 2) {
        left.push_back(both[i]);
        right.push_back(both[i + 1]);
    }
    QVERIFY(left == right);
    const std::size_t onset = firstSound(left);
    QVERIFY(onset < left.size());
    const double heard =
        toneAmplitude(left, onset + 4410, 22050, ProbeTone::kVoiceFrequency, 44100);
    const double expected = 3276.0 / 32768.0 * 0.85;
    QVERIFY2(std::fabs(heard - expected) < 0.002, qPrintable(QString::number(heard)));

    const QString flow = bridge.flowStatus();
    QVERIFY2(flow.startsWith(u"Audio reçu : "_s), qPrintable(flow));
    QVERIFY(flow.contains(u" · Micro capté : -6 dB · vers IA : -6 dB · entrée : "_s));
    QVERIFY(flow.endsWith(u" · moteurs entrée/sortie : actif/actif"_s));

    bridge.stop();
    QVERIFY(bridge.flowStatus().endsWith(u"moteurs entrée/sortie : arrêté/arrêté"_s));
    QVERIFY(bridge.needsRestart());

    // Both sides are in the recording, which sox reads.
    auto done = std::make_shared<std::promise<Result<QString>>>();
    recorder->finish([done](Result<QString> result) { done->set_value(std::move(result)); });
    auto future = done->get_future();
    QCOMPARE(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    const Result<QString> file = future.get();
    QVERIFY2(file, file ? "" : qPrintable(file.error().message()));
    const auto frames = AudioFiles::wavFrames(wav);
    QVERIFY(frames && frames.value() > 24000);
    QProcess sox;
    sox.start(u"sox"_s, {wav, u"-t"_s, u"s16"_s, u"-"_s});
    QVERIFY(sox.waitForFinished(10000));
    const QByteArray mixed = sox.readAllStandardOutput();
    QCOMPARE(mixed.size(), qsizetype(frames.value() * 2));
    // Each voice is looked for in 100 ms windows: the recorder places blocks by their arrival
    // time, so on a busy machine a late block shifts the tone's phase, and one sum over the
    // whole file could cancel a voice that is plainly there.
    auto loudest = [&mixed](double frequency) {
        double best = 0;
        for (qsizetype at = 0; at + 4800 <= mixed.size(); at += 4800) {
            ProbeMeter window(frequency);
            window.append(mixed.constData() + at, 4800);
            best = std::max(best, window.amplitude());
        }
        return best;
    };
    // Mixed at 0.5: the caller's 0.5 tone at 0.25, the AI's 0.1 tone after headroom at 0.0425.
    const double callerInMix = loudest(ProbeTone::kCallFrequency);
    const double voiceInMix = loudest(ProbeTone::kVoiceFrequency);
    QVERIFY2(std::fabs(callerInMix - 0.25) < 0.02, qPrintable(QString::number(callerInMix)));
    QVERIFY2(std::fabs(voiceInMix - 0.0425) < 0.005, qPrintable(QString::number(voiceInMix)));
}

void AudioBridgeTest::interruptAndStallAccounting()
{
    Rig rig;
    rig.io.threaded = false; // this test turns the device's wheels itself
    std::atomic<double> now{100.0};
    AudioBridge bridge(rig.io, rig.system, [&now] { return now.load(); });
    QVERIFY(!bridge.start(kCall, kVoice, false));
    auto* engine = rig.io.lastEngine();
    std::vector<float> out(4410 * 2);
    auto render = [&](int times) {
        bool sound = false;
        for (int i = 0; i < times; ++i) {
            engine->pumpRender(out.data(), 4410);
            sound = sound || std::any_of(out.begin(), out.end(),
                                         [](float v) { return std::fabs(v) > 1e-4f; });
        }
        return sound;
    };
    const QByteArray tone = ProbeTone::testTone(1000);

    // Two deltas, then the caller speaks over them: the flushed buffers' completions that
    // follow do not disturb the new count, and nothing of them is heard.
    bridge.enqueue(slice(tone, 1, 0.1));
    bridge.enqueue(slice(tone, 1.1, 0.1));
    QCOMPARE(bridge.health().snapshot().pending, 2);
    bridge.interrupt();
    QCOMPARE(bridge.health().snapshot().pending, 0);
    QVERIFY(!render(3));
    QCOMPARE(bridge.health().snapshot().pending, 0);
    // The player is ready for the next response at once.
    bridge.enqueue(slice(tone, 2, 0.1));
    bridge.enqueue(QByteArray(1, '\1')); // not audio: dropped without a trace
    QCOMPARE(bridge.health().snapshot().pending, 1);
    QVERIFY(render(2));
    QCOMPARE(bridge.health().snapshot().pending, 0);

    // Stall watch: capture delivered at t = 102, AI audio demanded then, no output since.
    std::vector<float> block(2048 * 2, 0.0f);
    now = 102.0;
    engine->pumpCapture(block.data(), 2048);
    bridge.enqueue(slice(tone, 3, 0.5));
    now = 105.0;
    engine->pumpCapture(block.data(), 2048);
    QVERIFY(!bridge.needsRestart());
    now = 105.01;
    QVERIFY(bridge.needsRestart()); // 3.01 s waiting with the output silent
    render(1);                      // one measured output block clears it
    QVERIFY(!bridge.needsRestart());
    now = 108.2;
    QVERIFY(bridge.needsRestart()); // and no capture for over 3 s is a stall too
    bridge.stop();
}

void AudioBridgeTest::equaliserChangesApplyMidCall()
{
    Rig rig;
    rig.io.threaded = false;
    AudioBridge bridge(rig.io, rig.system);
    VoiceEQSettings saved;
    saved.enabled = true;
    saved.gains[4] = 6.0f; // +6 dB at 1 kHz, set before the call
    bridge.setVoiceEQ(saved);
    QVERIFY(!bridge.start(kCall, kVoice, false));
    QVERIFY(bridge.voiceOutput());
    QCOMPARE(bridge.voiceOutput()->bands()[4].gain, 6.0f);
    auto* engine = rig.io.lastEngine();
    const QByteArray tone = ProbeTone::testTone(1000);
    bridge.enqueue(slice(tone, 0.5, 4.0));
    auto level = [&] {
        std::vector<float> out(4410 * 2 * 5);
        for (int i = 0; i < 5; ++i)
            engine->pumpRender(out.data() + 4410 * 2 * i, 4410);
        std::vector<float> left;
        for (std::size_t i = 0; i < out.size(); i += 2)
            left.push_back(out[i]);
        return toneAmplitude(left, 4410, 17640, 1000, 44100);
    };
    const double boosted = level();
    // The owner saves -6 dB while the AI is speaking: heard from the next block on.
    saved.gains[4] = -6.0f;
    bridge.setVoiceEQ(saved);
    const double cut = level();
    const double full = 3276.0 / 32768.0 * 0.85;
    QVERIFY2(std::fabs(20 * std::log10(boosted / full) - 6.0) < 0.2,
             qPrintable(QString::number(boosted)));
    QVERIFY2(std::fabs(20 * std::log10(cut / full) + 6.0) < 0.2, qPrintable(QString::number(cut)));
    // Switched off: flat again, whatever the gains.
    saved.enabled = false;
    bridge.setVoiceEQ(saved);
    QVERIFY(std::fabs(20 * std::log10(level() / full)) < 0.1);
    bridge.stop();
}

void AudioBridgeTest::everyFailureReachesTheOwner()
{
    auto startError = [](Rig& rig, std::uint32_t in, std::uint32_t out, bool mac) {
        AudioBridge bridge(rig.io, rig.system);
        const Status failed = bridge.start(in, out, mac);
        return failed ? failed->message() : QString();
    };
    {
        Rig rig;
        QCOMPARE(startError(rig, 99, kVoice, false), u"Périphérique audio indisponible."_s);
        rig.io.device(kCall)->selectStatus = -10851;
        QCOMPARE(startError(rig, kCall, kVoice, false),
                 u"Impossible de sélectionner le périphérique audio (-10851)."_s);
    }
    {
        Rig rig;
        rig.io.device(kCall)->captureFormat = {0, 2};
        QCOMPARE(startError(rig, kCall, kVoice, false), u"Format du microphone incompatible."_s);
        rig.io.device(kCall)->captureFormat = {48000, 2};
        rig.io.device(kVoice)->playbackFormat = {48000, 0};
        QCOMPARE(startError(rig, kCall, kVoice, false),
                 u"Le périphérique de sortie ne fournit pas de format audio "
                 u"utilisable."_s);
    }
    {
        // In a conversation on the Mac the devices must still be the system defaults.
        Rig rig;
        const QString changed =
            u"Le périphérique audio du Mac a changé. Relancez la vérification audio du Mac."_s;
        rig.system.defaults = {{dIn, kHeadsetMic}, {dOut, kMacSpeakers}};
        QCOMPARE(startError(rig, kMacMic, kMacSpeakers, true), changed);
        rig.system.defaults = {{dIn, kMacMic}, {dOut, kMacSpeakers}};
        rig.system.readFailures.insert(dOut, -50);
        QCOMPARE(startError(rig, kMacMic, kMacSpeakers, true), changed);
        rig.system.readFailures.clear();
        // A default id that the device list does not show as an input.
        rig.system.defaults = {{dIn, kMacSpeakers}, {dOut, kMacSpeakers}};
        QCOMPARE(startError(rig, kMacSpeakers, kMacSpeakers, true), changed);
        QCOMPARE(rig.io.openCount(), 0);
        rig.system.defaults = {{dIn, kMacMic}, {dOut, kMacSpeakers}};
        rig.io.device(kMacMic)->echoError = u"L’annulation d’écho n’a pas pu être activée (-1)."_s;
        QCOMPARE(startError(rig, kMacMic, kMacSpeakers, true),
                 u"L’annulation d’écho n’a pas pu être activée (-1)."_s);
    }
    {
        // A device that refuses to start: its error, and the bridge is left stopped.
        Rig rig;
        rig.io.device(kVoice)->startError = u"Le périphérique est occupé."_s;
        AudioBridge bridge(rig.io, rig.system);
        const Status failed = bridge.start(kCall, kVoice, false);
        QVERIFY(failed);
        QCOMPARE(failed->message(), u"Le périphérique est occupé."_s);
        QVERIFY(!bridge.captureRunning() && !bridge.playbackRunning());
        QVERIFY(!bridge.isTapped());
        // No intervention without call audio.
        const Status refused = bridge.startIntervention(kHeadsetMic, kHeadphones, kCall);
        QVERIFY(refused);
        QCOMPARE(refused->message(), u"Le son de l’appel doit fonctionner avant d’intervenir."_s);
        QVERIFY(rig.system.writes.isEmpty());
    }
    {
        // The manager's devices cannot be made the defaults: nothing is left changed.
        Rig rig;
        rig.io.threaded = false;
        AudioBridge bridge(rig.io, rig.system);
        QVERIFY(!bridge.start(kCall, kVoice, false));
        rig.system.writeFailures.insert(dOut, -50);
        const Status failed = bridge.startIntervention(kHeadsetMic, kHeadphones, kCall);
        QVERIFY(failed);
        QCOMPARE(failed->message(),
                 u"Impossible de préparer le micro ou les haut-parleurs du Mac (-50)."_s);
        QCOMPARE(rig.system.defaults.value(dIn), kMacMic);
        QVERIFY(!bridge.monitorBridge());
        QVERIFY(!bridge.interventionRoute().isPrepared());
    }
}

void AudioBridgeTest::stoppedEnginesResumeUnlessTheFormatChanged()
{
    Rig rig;
    AudioBridge bridge(rig.io, rig.system);
    Received received;
    bridge.onPCM = [&](const QByteArray& wire) { received.add(wire); };
    QVERIFY(!bridge.start(kCall, kVoice, false));
    QVERIFY(waitFor([&] { return received.size() > 0; }));
    auto* engine = rig.io.lastEngine();

    // Both running: nothing to resume, even though the device format changed meanwhile.
    rig.io.device(kVoice)->playbackFormat = {48000, 2};
    QVERIFY(!bridge.resumeStoppedEngines());
    QCOMPARE(rig.io.openCount(), 1);
    rig.io.device(kVoice)->playbackFormat = {44100, 2};

    // The platform stops capture: a restart is needed, and a resume brings the sound back.
    engine->platformStopCapture();
    QVERIFY(bridge.needsRestart());
    QVERIFY(!bridge.resumeStoppedEngines());
    QVERIFY(bridge.captureRunning());
    const qsizetype before = received.size();
    QVERIFY(waitFor([&] { return received.size() > before; }));
    QVERIFY(!bridge.needsRestart());
    QCOMPARE(rig.io.openCount(), 1);

    // It stops playback after changing its format: only a full start can rebuild the circuit.
    rig.io.device(kVoice)->playbackFormat = {48000, 2};
    engine->platformStopPlayback();
    QVERIFY(bridge.needsRestart());
    const Status failed = bridge.resumeStoppedEngines();
    QVERIFY(failed);
    QCOMPARE(failed->message(), u"macOS a modifié le format audio. Relancez la "
                                u"vérification pour reconstruire le circuit."_s);
    QVERIFY(!bridge.start(kCall, kVoice, false));
    QVERIFY(!bridge.needsRestart());
    QCOMPARE(bridge.mixerFormat(), std::optional<DeviceFormat>(DeviceFormat{48000, 2}));
}

void AudioBridgeTest::interventionConnectsTheManager_data()
{
    // The sound cards' capture blocks: the 2,048 frames the bridge asks for, or the 10 ms and
    // 20 ms periods that Core Audio and PulseAudio devices really use.
    QTest::addColumn<double>("blockSeconds");
    QTest::newRow("2048 frames") << 0.0;
    QTest::newRow("10 ms") << 0.010;
    QTest::newRow("20 ms") << 0.020;
}

void AudioBridgeTest::interventionConnectsTheManager()
{
    QFETCH(double, blockSeconds);
    Rig rig;
    if (blockSeconds > 0)
        rig.io.captureBlockSeconds = blockSeconds;
    AudioBridge bridge(rig.io, rig.system);
    QVERIFY(!bridge.start(kCall, kVoice, false));
    const QByteArray tone = ProbeTone::testTone(1000);
    bridge.enqueue(slice(tone, 1, 3.0)); // the AI is speaking
    QCOMPARE(bridge.health().snapshot().pending, 1);

    const Status started = bridge.startIntervention(kHeadsetMic, kHeadphones, kCall);
    QVERIFY2(!started, started ? qPrintable(started->message()) : "");
    // The AI stops at once; the manager's devices became the defaults; the nested bridge
    // runs on them as a conversation on the Mac.
    QCOMPARE(bridge.health().snapshot().pending, 0);
    QCOMPARE(rig.system.defaults.value(dIn), kHeadsetMic);
    QCOMPARE(rig.system.defaults.value(dOut), kHeadphones);
    QVERIFY(bridge.monitorBridge());
    const auto& request = rig.io.lastEngine()->request();
    QVERIFY(request.conversationOnComputer);
    QCOMPARE(request.inputDeviceID, std::optional<std::uint32_t>(kHeadsetMic));
    // A block the device was already rendering when the manager took over still goes out (no
    // sound card can take it back); what is measured starts after it.
    rig.io.clearPlayed(kVoice);
    QVERIFY(waitFor([&] { return rig.io.playedFrames(kVoice) >= 44100 / 10; }));
    rig.io.clearPlayed(kVoice);
    rig.io.clearPlayed(kHeadphones);

    // The caller is heard in the headphones, the manager in the call, each at its level.
    rig.io.feedTone(kCall, 733, 0.5, 2.0);
    rig.io.feedTone(kHeadsetMic, 440, 0.3, 2.0);
    QVERIFY(waitFor([&] { return rig.io.playedFrames(kHeadphones) > 48000 * 3 / 2; }, 6));
    QVERIFY(waitFor([&] { return rig.io.playedFrames(kVoice) > 44100 * 3 / 2; }, 6));
    const auto headphones = rig.io.playedChannel(kHeadphones, 0);
    const auto call = rig.io.playedChannel(kVoice, 0);
    const double callerInEars = bestAmplitude(headphones, 733, 48000);
    const double managerInCall = bestAmplitude(call, 440, 44100);
    const double aiInCall = bestAmplitude(call, 1000, 44100);
    QVERIFY2(std::fabs(callerInEars - 0.5 * 0.85) < 0.02,
             qPrintable(QString::number(callerInEars)));
    QVERIFY(aiInCall < 0.001);
    QVERIFY2(std::fabs(managerInCall - 0.3) < 0.02, qPrintable(QString::number(managerInCall)));

    // A stalled nested bridge makes the whole bridge ask for a restart.
    rig.io.lastEngine()->platformStopCapture();
    QVERIFY(bridge.needsRestart());

    bridge.stopIntervention();
    QVERIFY(!bridge.monitorBridge());
    QCOMPARE(rig.system.defaults.value(dIn), kMacMic);
    QCOMPARE(rig.system.defaults.value(dOut), kMacSpeakers);
    QCOMPARE(rig.io.engines().size(), 1);
    QVERIFY(!bridge.needsRestart());
    bridge.stop();
}

void AudioBridgeTest::conversationOnTheMacIsLimited()
{
    Rig rig;
    AudioBridge bridge(rig.io, rig.system);
    Received received;
    bridge.onPCM = [&](const QByteArray& wire) { received.add(wire); };
    // A quiet stretch, then a shout far over full scale.
    std::vector<float> input(48000, 0.01f);
    input.insert(input.end(), 48000, 1.7f);
    rig.io.feed(kMacMic, input);
    QVERIFY(!bridge.start(kMacMic, kMacSpeakers, true));
    QVERIFY(rig.io.lastEngine()->isDuplex());
    QVERIFY(waitFor([&] { return received.size() >= 48000 * 2; }, 5));
    bridge.stop();
    const QByteArray wire = received.all();
    int peak = 0;
    for (qsizetype i = 0; i + 1 < wire.size(); i += 2)
        peak = std::max(peak, std::abs(int(readWire(wire.constData() + i))));
    QCOMPARE(peak, 27852); // 0.85 of full scale, never more
}

QTEST_GUILESS_MAIN(AudioBridgeTest)
#include "tst_audio_bridge.moc"
