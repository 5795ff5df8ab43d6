// The echo canceller's alignment of the loudspeaker reference with the microphone, driven the
// way the engine drives it (10 ms writes running ahead of 20 ms captures), deterministically.
#include "platform/linux/audio/EchoCanceller.h"
#include "support/Pcm.h"

#include <QTest>
#include <cmath>
#include <numbers>
#include <vector>

using vemira::pulse::EchoCanceller;
using vemira::testing::rms;
using vemira::testing::toneAmplitude;

namespace {

constexpr int kRate = 48000;
constexpr int kWrite = 480;   // 10 ms per write request
constexpr int kCapture = 960; // 20 ms per capture fragment

struct Scenario {
    int aheadWrites = 3;   // the loudspeaker buffer: writes run 30 ms ahead of playing
    int headStart = 50;    // writes before the microphone starts (warm-up): 500 ms
    int acousticDelay = 0; // samples from playing to the microphone
    double echoGain = 0.5;
    bool feedReference = true;
    std::optional<int> reportedDelay; // what the engine measured, if anything
    bool nearVoice = false;
};

// Runs 6 s; returns (echo RMS in the last second without near voice, near tone amplitude).
std::pair<double, double> run(const Scenario& s)
{
    EchoCanceller canceller(kRate);
    if (s.reportedDelay)
        canceller.setEchoDelay(*s.reportedDelay);
    const int total = 6 * kRate;
    std::vector<float> far(std::size_t(total + 10 * kWrite));
    std::uint32_t noise = 99;
    for (std::size_t n = 0; n < far.size(); ++n) {
        noise = noise * 1664525u + 1013904223u;
        const bool on = (n * 10 / kRate) % 7 != 6;
        far[n] = on ? 0.1f * float(std::int32_t(noise)) / 2147483648.0f : 0.0f;
    }
    std::vector<float> out(std::size_t(total) + 2048), cleaned;
    std::vector<float> stereo(std::size_t(2 * kWrite));
    std::size_t written = 0;
    // One 10 ms write of the loudspeaker: the next of `far`, or a steady level before it.
    const auto write = [&](bool steady) {
        for (int k = 0; k < kWrite; ++k)
            stereo[2 * k] = stereo[2 * k + 1] = steady ? 0.1f : far[written + std::size_t(k)];
        if (s.feedReference)
            canceller.playback(stereo.data(), kWrite, 2);
        written += steady ? 0 : std::size_t(kWrite);
    };
    // The loudspeaker starts first; what it played meanwhile is long gone from the room.
    for (int i = 0; i < s.headStart; ++i)
        write(true);
    for (int i = 0; i < s.aheadWrites; ++i)
        write(false);
    std::vector<float> mic(kCapture);
    for (int played = 0; played + kCapture <= total; played += kCapture) {
        // The device plays 20 ms; the server asks for two writes to refill its buffer...
        write(false);
        write(false);
        // ...and the microphone hands over what it heard meanwhile.
        for (int k = 0; k < kCapture; ++k) {
            const int n = played + k - s.acousticDelay;
            const float echo = n >= 0 ? float(s.echoGain) * far[std::size_t(n)] : 0.0f;
            const float voice =
                s.nearVoice && played + k > 4 * kRate
                    ? 0.1f * float(std::sin(2 * std::numbers::pi * 1103 * (played + k) / kRate))
                    : 0.0f;
            mic[std::size_t(k)] = echo + voice;
        }
        const int got = canceller.capture(mic.data(), kCapture, out.data());
        cleaned.insert(cleaned.end(), out.begin(), out.begin() + got);
    }
    return {rms(cleaned, 3 * kRate, kRate),
            toneAmplitude(cleaned.data() + 5 * kRate, kRate - kCapture, 1103, kRate)};
}

} // namespace

class EchoCancellerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // The echo of what we play is removed (by 26 dB at least) whether or not the delay is
    // known, for a monitor
    // (no acoustic delay) and for a room (60 ms more); a voice in the room stays.
    void removesTheEchoAndKeepsTheRoom()
    {
        const double playedRms = 0.5 * 0.1 / std::sqrt(3.0);
        for (const int acoustic : {0, 60 * kRate / 1000}) {
            for (const std::optional<int> reported :
                 {std::optional<int>(), std::optional<int>(50 * kRate / 1000 + acoustic)}) {
                Scenario s;
                s.acousticDelay = acoustic;
                s.reportedDelay = reported;
                s.nearVoice = true;
                const auto [echo, voice] = run(s);
                const QByteArray label = QByteArray::number(acoustic) + " / " +
                                         QByteArray::number(reported.value_or(-1));
                QVERIFY2(echo < playedRms / 20,
                         (label + " echo " + QByteArray::number(echo)).constData());
                QVERIFY2(voice > 0.01, (label + " voice " + QByteArray::number(voice)).constData());
            }
        }
    }

    // Without the reference, or with a reference that runs behind the echo (a delay
    // overstated by far), nothing is cancelled: the alignment is what makes it work.
    void needsAReferenceAheadOfTheEcho()
    {
        const double playedRms = 0.5 * 0.1 / std::sqrt(3.0);
        Scenario blind;
        blind.feedReference = false;
        QVERIFY(run(blind).first > playedRms / 4);
        Scenario late;
        late.reportedDelay = 400 * kRate / 1000; // claims 400 ms: the reference lags the echo
        QVERIFY(run(late).first > playedRms / 4);
    }
};

QTEST_GUILESS_MAIN(EchoCancellerTest)
#include "tst_echo_canceller.moc"
