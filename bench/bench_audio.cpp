// Prints what the audio path costs per second of audio, and its ratio to a plain copy of the
// same samples. Run a Release build: cmake -DVEMIRA_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=Release.
#include "audio/AudioBridge.h"
#include "audio/AudioFormats.h"
#include "audio/ProbeMeter.h"
#include "audio/VoiceOutputChain.h"
#include "audio/fakes/FakeAudioDevices.h"

#include <QCoreApplication>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <vector>

using namespace vemira;
using vemira::testing::FakeAudioDeviceIO;
using vemira::testing::FakeAudioSystem;

namespace {

constexpr int kFrames = 2048;
constexpr double kRate = 48000;

// Nanoseconds per call of `work`: the fastest of many short batches, so time the machine
// gave to other programs (it is shared) does not count against us.
template <typename Work> double nsPerCall(Work&& work, double seconds = 1.0)
{
    using clock = std::chrono::steady_clock;
    for (int i = 0; i < 50; ++i)
        work();
    constexpr int kBatch = 10;
    double best = 1e300;
    const auto start = clock::now();
    while (std::chrono::duration<double>(clock::now() - start).count() < seconds) {
        const auto batchStart = clock::now();
        for (int i = 0; i < kBatch; ++i)
            work();
        const double ns =
            std::chrono::duration<double, std::nano>(clock::now() - batchStart).count() / kBatch;
        best = std::min(best, ns);
    }
    return best;
}

volatile float g_sink = 0;

void report(const char* what, double ns, double copyNs)
{
    const double perSecond = ns * kRate / kFrames;
    std::printf("%-58s %9.0f ns/block %11.0f ns per s of audio  %5.3f%% of a core  x%.1f copy\n",
                what, ns, perSecond, perSecond / 1e7, ns / copyNs);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    FakeAudioSystem system;
    system.addDevice(1, QStringLiteral("Micro"), QStringLiteral("mic"), true, false,
                     AudioTransport::builtIn);
    system.addDevice(2, QStringLiteral("Sortie"), QStringLiteral("out"), false, true,
                     AudioTransport::builtIn);
    system.defaults = {{AudioSelector::defaultInput, 1}, {AudioSelector::defaultOutput, 2}};
    FakeAudioDeviceIO io;
    io.threaded = false;
    io.addDevice(1, {kRate, 2}, {});
    io.addDevice(2, {}, {kRate, 2});

    // A voice-like signal: two tones, loud enough for the limiter to work now and then.
    std::vector<float> capture(std::size_t(kFrames) * 2);
    for (int n = 0; n < kFrames; ++n) {
        const double t = n / kRate;
        const auto v = float(0.6 * std::sin(2 * std::numbers::pi * 220 * t) +
                             0.4 * std::sin(2 * std::numbers::pi * 1830 * t));
        capture[std::size_t(2 * n)] = v;
        capture[std::size_t(2 * n + 1)] = v;
    }
    std::vector<float> copy(capture.size());
    const double copyNs = nsPerCall([&] {
        std::memcpy(copy.data(), capture.data(), capture.size() * sizeof(float));
        g_sink = g_sink + copy[std::size_t(g_sink > 0)];
    });

    std::printf("plain copy of 2,048 stereo frames: %.0f ns\n", copyNs);

    // The conversion alone (channel 0 of 48 kHz stereo to 24 kHz mono).
    {
        auto conversion = InputAudioConversion::make(DeviceFormat{kRate, 2}, wireFormat);
        std::vector<float> converted(std::size_t(conversion->maxOutput(kFrames)));
        const double ns = nsPerCall([&] {
            conversion->convert(capture.data(), kFrames, converted.data(), int(converted.size()));
        });
        report("  of which 48 kHz stereo -> 24 kHz mono conversion", ns, copyNs);
    }

    // Capture: conversion to 24 kHz mono, limiter, peaks, flow health, wire bytes to onPCM.
    {
        AudioBridge bridge(io, system);
        long long bytes = 0;
        bridge.onPCM = [&bytes](const QByteArray& wire) { bytes += wire.size(); };
        if (bridge.start(1, 2, true))
            return 1;
        auto* engine = io.lastEngine();
        const double ns = nsPerCall([&] { engine->pumpCapture(capture.data(), kFrames); });
        report("capture block (48 kHz stereo -> wire, limiter, peaks)", ns, copyNs);
        bridge.stop();
    }

    // Output: player -> 9-band equaliser -> limiter -> headroom -> mixer at 48 kHz stereo,
    // and the measure of what leaves (back to 24 kHz wire).
    {
        AudioBridge bridge(io, system);
        VoiceEQSettings eq;
        eq.enabled = true;
        eq.gains = {3, -2, 1, 4, -3, 2, 5, -4, 6};
        bridge.setVoiceEQ(eq);
        if (bridge.start(1, 2, true))
            return 1;
        auto* engine = io.lastEngine();
        const QByteArray voice = ProbeTone::testTone(440);
        for (int i = 0; i < 40; ++i)
            bridge.enqueue(voice); // 280 s of voice: the player never runs dry
        std::vector<float> out(std::size_t(kFrames) * 2);
        const double ns = nsPerCall([&] {
            std::fill(out.begin(), out.end(), 0.0f);
            engine->pumpRender(out.data(), kFrames);
        });
        report("output block (EQ on, limiter, mix, 24k->48k, measure)", ns, copyNs);
        bridge.stop();
    }

    // The voice chain alone, on the 1,024 frames at 24 kHz that a 2,048-frame block needs.
    {
        VoiceOutputChain chain(24000);
        VoiceEQSettings eq;
        eq.enabled = true;
        eq.gains = {3, -2, 1, 4, -3, 2, 5, -4, 6};
        chain.apply(eq);
        chain.setHeadroomVolume(0.85f);
        std::vector<float> block(1024);
        const double ns = nsPerCall([&] {
            for (int i = 0; i < 1024; ++i)
                block[std::size_t(i)] = capture[std::size_t(2 * i)];
            chain.process(block.data(), 1024);
        });
        report("voice chain only (9 bands + limiter + headroom, 24 kHz)", ns, copyNs);
    }
    return 0;
}
