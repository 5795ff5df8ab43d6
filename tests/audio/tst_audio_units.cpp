// The audio engine's building blocks, each against the numbers a user or a device would see.
#include "audio/AudioBridge.h"
#include "audio/AudioFlowHealth.h"
#include "audio/AudioFormats.h"
#include "audio/MacAudioRoute.h"
#include "audio/MicrophoneLimiter.h"
#include "audio/Players.h"
#include "audio/ProbeMeter.h"
#include "audio/SoundDevice.h"
#include "audio/SpscFifo.h"
#include "audio/VoiceEQSettings.h"
#include "audio/VoiceOutputChain.h"
#include "audio/fakes/FakeAudioDevices.h"
#include "core/PlatformWording.h"
#include "support/Pcm.h"

#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <cmath>
#include <thread>

using namespace Qt::StringLiterals;
using namespace vemira;
using vemira::testing::FakeAudioSystem;
using vemira::testing::sine;
using vemira::testing::toneAmplitude;

namespace {

double dB(double ratio)
{
    return 20.0 * std::log10(ratio);
}

} // namespace

class AudioUnitsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // The texts quoted here are the macOS ones, word for word: selecting them on every
    // platform keeps these cases a guard against their drift.
    void initTestCase() { PlatformWording::select(WordingPlatform::MacOS); }
    void driverPairIsFoundByWholeUidOnDuplexDevices();
    void routeChangesOnlyWhatItMustAndRestoresOnlyWhatIsStillItsOwn();
    void builtInRoutePicksTheMacsOwnDevices();
    void flowHealthThresholdsAndTexts();
    void microphoneLimiterIsBitExact();
    void equaliserSettingsAreSanitisedAndPersisted();
    void equaliserShapesTheVoiceAndTheLimiterHoldsFullScale();
    void resamplerKeepsTheBandAndRejectsAliases();
    void probeToneAndMeter();
    void wireConversionsAndRouteText();
    void spscFifoLosesNothingAcrossThreads();
    void feedHoldsSecondsWhateverTheBlockSize();
};

void AudioUnitsTest::driverPairIsFoundByWholeUidOnDuplexDevices()
{
    const QString call = BrelianDevices::callUID();
    const QString voice = BrelianDevices::voiceUID();
    QVERIFY(call.endsWith("audio.call"_L1));
    QVERIFY(voice.endsWith("audio.voice"_L1));

    // A one-way device with the call uid comes first: the duplex one after it is chosen.
    QList<SoundDevice> devices = {
        {5, u"Micro"_s, u"builtin.mic"_s, true, false},
        {7, BrelianDevices::callName, call, false, true},
        {8, BrelianDevices::callName, call, true, true},
        {9, BrelianDevices::voiceName, voice, true, true},
    };
    const auto pair = BrelianDevices::pair(devices);
    QVERIFY(pair);
    QCOMPARE(pair->call.id, 8u);
    QCOMPARE(pair->voice.id, 9u);

    // Names never identify a device; a uid that merely ends alike does not either.
    QList<SoundDevice> lookalikes = {
        {1, BrelianDevices::callName, u"other.audio.call"_s, true, true},
        {2, BrelianDevices::voiceName, voice, true, true},
    };
    QVERIFY(!BrelianDevices::pair(lookalikes));

    // Both uids on one device id: no pair.
    QList<SoundDevice> same = {{4, QString(), call, true, true}, {4, QString(), voice, true, true}};
    QVERIFY(!BrelianDevices::pair(same));

    // The voice device lacks its input direction: no pair.
    devices[3].input = false;
    QVERIFY(!BrelianDevices::pair(devices));
    QVERIFY(!BrelianDevices::pair({}));
}

void AudioUnitsTest::routeChangesOnlyWhatItMustAndRestoresOnlyWhatIsStillItsOwn()
{
    const auto dIn = AudioSelector::defaultInput;
    const auto dOut = AudioSelector::defaultOutput;

    {
        // Input already right: one change, for the output only.
        FakeAudioSystem system;
        system.defaults = {{dIn, 20}, {dOut, 99}};
        MacAudioRoute route(system);
        QVERIFY(!route.prepare(20, 21));
        QCOMPARE(route.previous(), (QList<MacAudioRoute::Change>{{dOut, 99, 21}}));
        // Prepared: a second prepare keeps the first caller's choice, even with other ids.
        QVERIFY(!route.prepare(30, 31));
        QCOMPARE(system.defaults.value(dOut), 21u);
        QCOMPARE(system.writes.size(), 1);
        route.restore();
        QCOMPARE(system.defaults.value(dOut), 99u);
        QVERIFY(!route.isPrepared());
        route.restore(); // unprepared: nothing at all
        QCOMPARE(system.writes.size(), 2);
    }
    {
        // The output write fails after the input changed: input put back, output error, clean.
        FakeAudioSystem system;
        system.defaults = {{dIn, 1}, {dOut, 2}};
        system.writeFailures.insert(dOut, -50);
        MacAudioRoute route(system);
        const Status failed = route.prepare(20, 21);
        QVERIFY(failed);
        QCOMPARE(failed->message(),
                 u"Impossible de préparer le micro ou les haut-parleurs du Mac (-50)."_s);
        QCOMPARE(system.defaults.value(dIn), 1u);
        QVERIFY(route.previous().isEmpty());
    }
    {
        // Unreadable default: its message carries the signed status.
        FakeAudioSystem system;
        system.readFailures.insert(dIn, -50);
        MacAudioRoute route(system);
        const Status failed = route.prepare(20, 21);
        QVERIFY(failed);
        QCOMPARE(failed->message(), u"Impossible de lire le réglage audio du Mac (-50)."_s);
        QVERIFY(system.writes.isEmpty());
    }
    {
        // The user picks another output meanwhile: it stays; the input is put back.
        FakeAudioSystem system;
        system.defaults = {{dIn, 1}, {dOut, 2}};
        MacAudioRoute route(system);
        QVERIFY(!route.prepare(20, 21));
        QCOMPARE(route.previous().size(), 2);
        system.defaults.insert(dOut, 77);
        route.restore();
        QCOMPARE(system.defaults.value(dIn), 1u);
        QCOMPARE(system.defaults.value(dOut), 77u);
        QVERIFY(route.previous().isEmpty());
    }
    {
        // Both defaults already right: stays clean, and restore changes nothing.
        FakeAudioSystem system;
        system.defaults = {{dIn, 20}, {dOut, 21}};
        MacAudioRoute route(system);
        QVERIFY(!route.prepare(20, 21));
        QVERIFY(!route.isPrepared());
    }
}

void AudioUnitsTest::builtInRoutePicksTheMacsOwnDevices()
{
    FakeAudioSystem system;
    system.addDevice(3, u"Casque USB"_s, u"usb"_s, true, true, AudioTransport::usb);
    system.addDevice(4, u"Haut-parleurs"_s, u"spk"_s, false, true, AudioTransport::builtIn);
    system.addDevice(5, u"Micro"_s, u"mic"_s, true, false, AudioTransport::builtIn);
    system.defaults = {{AudioSelector::defaultInput, 3}, {AudioSelector::defaultOutput, 3}};
    MacAudioRoute route(system);
    QVERIFY(!route.prepare(system.devices()));
    QCOMPARE(system.defaults.value(AudioSelector::defaultInput), 5u);
    QCOMPARE(system.defaults.value(AudioSelector::defaultOutput), 4u);
    route.restore();

    // No built-in output (transport unreadable counts as not built in).
    FakeAudioSystem bare;
    bare.addDevice(5, u"Micro"_s, u"mic"_s, true, false, AudioTransport::builtIn);
    bare.deviceList.append(SoundDevice{6, u"?"_s, QString(), false, true});
    MacAudioRoute none(bare);
    const Status failed = none.prepare(bare.devices(), bare);
    QVERIFY(failed);
    QCOMPARE(failed->message(),
             u"Le micro et les haut-parleurs intégrés du Mac sont nécessaires pour ce test."_s);
    QVERIFY(bare.writes.isEmpty());
}

void AudioUnitsTest::flowHealthThresholdsAndTexts()
{
    double now = 1000.0;
    AudioFlowHealth health([&now] { return now; });

    // Right after reset: no stall for three seconds even with no audio at all.
    now += 3.0;
    QVERIFY(!health.stalled());
    now += 0.01;
    QVERIFY(health.stalled());

    // Capture flowing and nothing pending: a silent output is never a stall.
    health.reset();
    for (int i = 0; i < 10; ++i) {
        now += 1.0;
        health.inputDelivered(1024);
    }
    QVERIFY(!health.stalled());

    // AI audio waiting with no output measured since it was demanded.
    const auto generation = health.scheduled();
    now += 2.0;
    health.inputDelivered(1024);
    QVERIFY(!health.stalled());
    now += 1.5;
    health.inputDelivered(1024);
    QVERIFY(health.stalled());
    // An output block clears it; completing the buffer does too.
    health.outputDelivered(1024);
    QVERIFY(!health.stalled());
    health.played(generation);
    QCOMPARE(health.snapshot().pending, 0);
    // A completion from before an interrupt does not touch the new count.
    const auto old = health.scheduled();
    health.dropPending();
    health.scheduled();
    health.played(old);
    QCOMPARE(health.snapshot().pending, 1);

    // Texts.
    health.reset();
    health.inputDelivered(48000);
    health.addRawOutput(1.26);
    health.addOutputError();
    QCOMPARE(health.description(),
             u"Audio reçu : 2.0 s · sortie : 0.0 s (moteur : 1.3 s, erreurs de "
             u"conversion : 1)"_s);
    health.reset();
    health.addRawInput(0.5);
    health.outputDelivered(12000);
    QCOMPARE(health.description(),
             u"Audio reçu : 0.0 s · sortie : 0.5 s (micro brut : 0.5 s, erreurs : 0)"_s);
    QCOMPARE(health.signalDescription(),
             u"Micro capté : silence numérique · vers IA : silence numérique"_s);
    health.inputSignal(0.5, 0.0, 100);
    QCOMPARE(health.signalDescription(), u"Micro capté : -6 dB · vers IA : silence numérique"_s);

    // Exactly 0.003 is not signal; just above is.
    health.inputSignal(0.1, 0.003, 500);
    QCOMPARE(health.snapshot().signalFrames, 0);
    health.inputSignal(0.1, 0.0031, 500);
    QCOMPARE(health.snapshot().signalFrames, 500);

    // Levels fade to zero half a second after the last measurement.
    QCOMPARE(health.recentLevels(), std::make_pair(0.1, 0.0031));
    now += 0.49;
    QCOMPARE(health.recentLevels().first, 0.1);
    now += 0.01;
    QCOMPARE(health.recentLevels(), std::make_pair(0.0, 0.0));
}

void AudioUnitsTest::microphoneLimiterIsBitExact()
{
    MicrophoneLimiter limiter;
    for (int i = 0; i < 100; ++i)
        QCOMPARE(limiter.process(0.1f), std::int16_t(3277));
    // A sample of 1.7 after a quiet stretch: gain 0.5 at once, output 0.85 of full scale.
    QCOMPARE(limiter.process(1.7f), std::int16_t(27852));
    QVERIFY(std::fabs(limiter.gain - 0.5) < 1e-6);
    // Quiet samples bring the gain back with a 0.25 s time constant: the missing half shrinks
    // by e after 6,000 samples, and by e^4 after one second.
    for (int i = 0; i < 6000; ++i)
        limiter.process(0.01f);
    QVERIFY(std::fabs((1.0 - limiter.gain) - 0.5 * std::exp(-1.0)) < 1e-6);
    for (int i = 0; i < 18000; ++i)
        limiter.process(0.01f);
    QVERIFY(std::fabs((1.0 - limiter.gain) - 0.5 * std::exp(-4.0)) < 1e-6);
    // Non-finite input: silence, gain untouched.
    const double before = limiter.gain;
    QCOMPARE(limiter.process(std::numeric_limits<float>::quiet_NaN()), std::int16_t(0));
    QCOMPARE(limiter.process(std::numeric_limits<float>::infinity()), std::int16_t(0));
    QCOMPARE(limiter.gain, before);
    // Negative overs are symmetric.
    MicrophoneLimiter fresh;
    QCOMPARE(fresh.process(-1.7f), std::int16_t(-27852));
}

void AudioUnitsTest::equaliserSettingsAreSanitisedAndPersisted()
{
    VoiceEQSettings wild;
    wild.gains = {20.0f, -30.0f, std::numeric_limits<float>::quiet_NaN()};
    const auto safe = wild.safeGains();
    QCOMPARE(QList<float>(safe.begin(), safe.end()), (QList<float>{12, -12, 0, 0, 0, 0, 0, 0, 0}));
    wild.gains = QList<float>(12, 3.0f);
    QCOMPARE(wild.safeGains().size(), std::size_t(9));

    // Only "enabled": undecodable, so the default.
    QCOMPARE(VoiceEQSettings::load(QByteArray(R"({"enabled":true})")), VoiceEQSettings{});
    QCOMPARE(VoiceEQSettings::load(QByteArray("not json")), VoiceEQSettings{});
    QCOMPARE(VoiceEQSettings::load(QByteArray(R"({"enabled":true,"gains":"loud"})")),
             VoiceEQSettings{});
    const VoiceEQSettings loaded =
        VoiceEQSettings::load(QByteArray(R"({"enabled":true,"gains":[3,40,-2.5]})"));
    QVERIFY(loaded.enabled);
    QCOMPARE(loaded.gains, (QList<float>{3, 12, -2.5f, 0, 0, 0, 0, 0, 0}));

    // Round trip through the preference store, under "voiceEQ".
    QTemporaryDir dir;
    const QString file = dir.filePath(u"prefs.ini"_s);
    VoiceEQSettings mine;
    mine.enabled = true;
    mine.gains = {1, 2, 3, 4, 5, 6, 7, 8, -9};
    {
        QSettings settings(file, QSettings::IniFormat);
        QCOMPARE(VoiceEQSettings::load(settings), VoiceEQSettings{});
        settings.setValue(u"voiceEQ"_s, mine.toJson());
    }
    QSettings settings(file, QSettings::IniFormat);
    QCOMPARE(VoiceEQSettings::load(settings), mine);
}

void AudioUnitsTest::equaliserShapesTheVoiceAndTheLimiterHoldsFullScale()
{
    const double rate = 24000;
    const int frames = 24000;
    auto gainAt = [&](VoiceOutputChain& chain, double frequency) {
        auto x = sine(frequency, rate, 0.05, frames);
        chain.process(x.data(), frames);
        // Skip the first half second: filters settle.
        return toneAmplitude(x.data() + frames / 2, frames / 2, frequency, rate) / 0.05;
    };

    // Disabled with non-zero gains: gains written, every band bypassed, the voice flat.
    VoiceOutputChain chain(rate);
    VoiceEQSettings settings;
    settings.gains = QList<float>(9, 9.0f);
    chain.apply(settings);
    for (const EqualizerBand& band : chain.bands()) {
        QCOMPARE(band.gain, 9.0f);
        QVERIFY(band.bypass);
        QCOMPARE(band.bandwidth, 1.0);
    }
    QVERIFY(std::fabs(dB(gainAt(chain, 1000))) < 0.01); // headroom not connected yet: unity

    // Each band boosts its own centre by its gain, and leaves two octaves away nearly alone.
    const std::array<double, 9> centres{63, 125, 250, 500, 1000, 2000, 4000, 8000, 10000};
    for (int b = 0; b < 9; ++b) {
        VoiceOutputChain one(rate);
        VoiceEQSettings s;
        s.enabled = true;
        s.gains[b] = 6.0f;
        one.apply(s);
        const double centre = centres[std::size_t(b)];
        QVERIFY2(std::fabs(dB(gainAt(one, centre)) - 6.0) < 0.1, qPrintable(QString::number(b)));
        if (centre <= 2000)
            QVERIFY(std::fabs(dB(gainAt(one, centre * 4))) < 1.0);
    }

    // +12 dB on a loud voice: the limiter keeps it within full scale before the headroom.
    VoiceOutputChain hot(rate);
    VoiceEQSettings boost;
    boost.enabled = true;
    boost.gains = QList<float>(9, 12.0f);
    hot.apply(boost);
    auto loud = sine(1000, rate, 0.9, frames);
    hot.process(loud.data(), frames);
    float peak = 0;
    for (float v : loud)
        peak = std::max(peak, std::fabs(v));
    QVERIFY(peak <= 1.0f);
    QVERIFY(peak > 0.95f);
}

void AudioUnitsTest::resamplerKeepsTheBandAndRejectsAliases()
{
    // A 15 kHz tone on a 48 kHz stereo device: nothing of it may fold back into the 24 kHz
    // output above -80 dBFS.
    const int frames = 96000;
    auto converter = InputAudioConversion::make(DeviceFormat{48000, 2}, wireFormat);
    QVERIFY(converter);
    const auto high = sine(15000, 48000, 1.0, frames, 2);
    std::vector<float> out(std::size_t(converter->maxOutput(frames)));
    int produced = 0;
    for (int offset = 0; offset < frames; offset += 2048) {
        const int count = std::min(2048, frames - offset);
        produced += converter->convert(high.data() + 2 * offset, count, out.data() + produced,
                                       int(out.size()) - produced);
    }
    QVERIFY(std::abs(produced - 48000) <= 128);
    float worst = 0;
    for (int i = 1000; i < produced; ++i)
        worst = std::max(worst, std::fabs(out[std::size_t(i)]));
    QVERIFY2(dB(worst) < -80.0, qPrintable(u"alias peak %1 dBFS"_s.arg(dB(worst))));

    // Channel 0 only, no downmix: a tone on channel 1 alone does not come through.
    std::vector<float> right(std::size_t(frames) * 2, 0.0f);
    const auto tone = sine(1000, 48000, 0.5, frames);
    for (int n = 0; n < frames; ++n)
        right[std::size_t(2 * n + 1)] = tone[std::size_t(n)];
    auto fresh = InputAudioConversion::make(DeviceFormat{48000, 2}, wireFormat);
    produced = fresh->convert(right.data(), frames, out.data(), int(out.size()));
    float leak = 0;
    for (int i = 0; i < produced; ++i)
        leak = std::max(leak, std::fabs(out[std::size_t(i)]));
    QCOMPARE(leak, 0.0f);

    // In-band voice keeps its level through 44.1 kHz → 24 kHz.
    auto cd = InputAudioConversion::make(DeviceFormat{44100, 1}, wireFormat);
    const auto voice = sine(1000, 44100, 0.5, 44100);
    produced = cd->convert(voice.data(), 44100, out.data(), int(out.size()));
    QVERIFY2(std::abs(produced - 24000) <= 128, // the filter holds back its delay
             qPrintable(QString::number(produced)));
    QVERIFY(std::fabs(dB(toneAmplitude(out.data() + 2000, 12000, 1000, 24000) / 0.5)) < 0.05);

    // No converter for a format without rate or channels, or a stereo target.
    QVERIFY(!InputAudioConversion::make(DeviceFormat{0, 2}, wireFormat));
    QVERIFY(!InputAudioConversion::make(DeviceFormat{48000, 0}, wireFormat));
    QVERIFY(!InputAudioConversion::make(DeviceFormat{48000, 2},
                                        AudioFormat{SampleType::Int16, 24000, 2}));
}

void AudioUnitsTest::probeToneAndMeter()
{
    // Seven seconds of wire audio at amplitude 3276, faded in and out over 10 ms.
    const QByteArray tone = ProbeTone::testTone(733);
    QCOMPARE(tone.size(), 336000);
    auto peak = [&tone](int from, int count) {
        int most = 0;
        for (int n = from; n < from + count; ++n)
            most = std::max(most, std::abs(int(readWire(tone.constData() + 2 * n))));
        return most;
    };
    QCOMPARE(peak(0, 1), 0);
    QCOMPARE(peak(167999, 1), 0);
    QVERIFY(peak(0, 24) < 330);                          // first millisecond
    QVERIFY(peak(96, 48) > 1310 && peak(96, 48) < 1966); // fourth and fifth
    QVERIFY(peak(240, 240) >= 3270 && peak(240, 240) <= 3276);
    QVERIFY(peak(167976, 24) < 330);

    // The meter reads the full-strength loop-back at about 0.1, split however the blocks come.
    ProbeMeter whole(733);
    whole.append(tone);
    ProbeMeter pieces(733);
    for (int offset = 0; offset < tone.size(); offset += 4802)
        pieces.append(tone.mid(offset, 4802));
    QVERIFY(std::fabs(whole.amplitude() - 3276.0 / 32768.0) < 0.002);
    QCOMPARE(pieces.count(), whole.count());
    QVERIFY(std::fabs(pieces.amplitude() - whole.amplitude()) < 1e-9);
    QVERIFY(ProbeTone::passes(whole));
    // The other circuit's tone is not mistaken for this one.
    ProbeMeter other(1103);
    other.append(tone);
    QVERIFY(other.amplitude() < 0.002);
    QVERIFY(!ProbeTone::passes(other));
    // Silence, and too few samples even at full strength.
    ProbeMeter silent(733);
    silent.append(QByteArray(48000, '\0'));
    QCOMPARE(silent.amplitude(), 0.0);
    ProbeMeter brief(733);
    brief.append(tone.mid(2 * 10000, 2 * 7999));
    QVERIFY(brief.amplitude() > 0.012);
    QVERIFY(!ProbeTone::passes(brief));
}

void AudioUnitsTest::wireConversionsAndRouteText()
{
    QVERIFY(!AudioBridge::playbackBuffer(QByteArray(1, '\1')));
    QVERIFY(!AudioBridge::playbackBuffer(QByteArray(2000000, '\0')));
    const auto big = AudioBridge::playbackBuffer(QByteArray(1999999, '\0'));
    QVERIFY(big);
    QCOMPARE(big->size(), std::size_t(999999));
    QByteArray bytes(4, '\0');
    writeWire(bytes.data(), -32768);
    writeWire(bytes.data() + 2, 16384);
    QCOMPARE(bytes, QByteArray("\x00\x80\x00\x40", 4)); // little-endian on the wire
    const auto two = AudioBridge::playbackBuffer(bytes);
    QCOMPARE(*two, (std::vector<float>{-1.0f, 0.5f}));

    QCOMPARE(floatToWire(1.0f), std::int16_t(32767));
    QCOMPARE(floatToWire(-1.0f), std::int16_t(-32768));
    QCOMPARE(floatToWire(0.5f), std::int16_t(16384));
    QCOMPARE(floatToWire(std::numeric_limits<float>::quiet_NaN()), std::int16_t(0));

    QCOMPARE(AudioBridge::routeText({}, 71, 73, DeviceFormat{48000, 1}),
             u"entrée : 71 / sortie : 73 · source : 1 canaux, 48000 Hz"_s);
}

void AudioUnitsTest::feedHoldsSecondsWhateverTheBlockSize()
{
    // A device capturing 10 ms or 20 ms blocks pushes eight or four times as often as one
    // capturing 2,048 frames: the feed between two engines holds the same five seconds.
    const auto sample = [](std::int64_t n) { return std::int16_t(n % 30000 - 15000); };
    for (const int block : {240, 480, 2048}) {
        FeedPlayer feed;
        QByteArray wire(qsizetype(block) * 2, Qt::Uninitialized);
        std::int64_t pushed = 0;
        while (pushed + block <= 5 * 24000) {
            for (int i = 0; i < block; ++i)
                writeWire(wire.data() + 2 * i, sample(pushed + i));
            feed.pushWire(wire);
            pushed += block;
        }
        QCOMPARE(feed.dropped(), std::int64_t(0));
        QCOMPARE(feed.queuedFrames(), pushed);
        // Played in 10 ms device periods, in order, nothing lost or repeated.
        feed.play();
        std::vector<float> out(480);
        std::int64_t played = 0;
        bool inOrder = true;
        while (played < pushed) {
            std::fill(out.begin(), out.end(), 0.0f);
            feed.mixInto(out.data(), int(out.size()));
            const std::int64_t n =
                std::min<std::int64_t>(std::int64_t(out.size()), pushed - played);
            for (std::int64_t i = 0; i < n; ++i)
                inOrder = inOrder && out[std::size_t(i)] == wireToFloat(sample(played + i));
            played += n;
        }
        QVERIFY2(inOrder, qPrintable(QString::number(block)));
        QCOMPARE(feed.queuedFrames(), std::int64_t(0));
    }
    // Past its capacity the rest of the newest push is dropped, and counted once.
    FeedPlayer full;
    const QByteArray second(24000 * 2, '\0');
    for (int i = 0; i < 6; ++i)
        full.pushWire(second);
    QVERIFY(full.queuedFrames() >= 5 * 24000 && full.queuedFrames() < 6 * 24000);
    QCOMPARE(full.dropped(), std::int64_t(1));
}

void AudioUnitsTest::spscFifoLosesNothingAcrossThreads()
{
    constexpr std::uint64_t kCount = 300000;
    SpscFifo<std::uint64_t, 256> fifo;
    std::thread producer([&fifo] {
        for (std::uint64_t i = 0; i < kCount;) {
            if (fifo.push(i))
                ++i;
            else
                std::this_thread::yield();
        }
    });
    std::uint64_t expected = 0;
    bool ordered = true;
    while (expected < kCount) {
        std::uint64_t value = 0;
        if (!fifo.pop(value)) {
            std::this_thread::yield();
            continue;
        }
        ordered = ordered && value == expected;
        ++expected;
    }
    producer.join();
    QVERIFY(ordered);
    QCOMPARE(fifo.size(), std::size_t(0));

    // A full queue refuses instead of overwriting.
    SpscFifo<int, 4> small;
    for (int i = 0; i < 4; ++i)
        QVERIFY(small.push(i));
    QVERIFY(!small.push(4));
    int first = -1;
    QVERIFY(small.pop(first));
    QCOMPARE(first, 0);

    // The latest-value mailbox never hands out a torn value, and only newer ones.
    struct Pair {
        std::int64_t a = 0, b = 0;
    };
    LatestValue<Pair> box;
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (std::int64_t i = 1; i <= 200000; ++i)
            box.publish(Pair{i, -i});
        done = true;
    });
    std::int64_t last = 0;
    bool consistent = true;
    for (;;) {
        const bool finished = done.load();
        Pair seen;
        while (box.take(seen)) {
            consistent = consistent && seen.b == -seen.a && seen.a > last;
            last = seen.a;
        }
        if (finished)
            break;
    }
    writer.join();
    QVERIFY(consistent);
    QCOMPARE(last, std::int64_t(200000));
}

QTEST_GUILESS_MAIN(AudioUnitsTest)
#include "tst_audio_units.moc"
