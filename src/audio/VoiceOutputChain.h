#pragma once

#include "audio/SpscFifo.h"
#include "audio/VoiceEQSettings.h"

#include <array>
#include <atomic>

namespace vemira {

// Normalised biquad (a0 = 1).
struct BiquadCoefficients {
    double b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
};

// RBJ "Audio EQ Cookbook" peaking filter, bandwidth in octaves.
BiquadCoefficients peakingFilter(double sampleRate, double frequency, double bandwidthOctaves,
                                 double gainDB);

// One equaliser band as last applied: always parametric.
struct EqualizerBand {
    double frequency = 0;
    double bandwidth = 0; // octaves
    float gain = 0;       // dB
    bool bypass = true;
    bool operator==(const EqualizerBand&) const = default;
};

// Stands in for the platform's peak limiter: instant attack, so the output never leaves full
// scale, and a short exponential release. Render thread only.
class PeakLimiter {
public:
    static constexpr double kCeiling = 1.0;
    static constexpr double kReleaseSeconds = 0.024;

    explicit PeakLimiter(double sampleRate);
    float process(float x)
    {
        const double magnitude = x < 0 ? -double(x) : double(x);
        const double wanted = magnitude <= kCeiling ? 1.0 : kCeiling / magnitude;
        m_gain = wanted < m_gain ? wanted : wanted - (wanted - m_gain) * m_release;
        double y = double(x) * m_gain;
        if (y > kCeiling)
            y = kCeiling;
        if (y < -kCeiling)
            y = -kCeiling;
        return float(y);
    }
    double gain() const { return m_gain; }

private:
    double m_gain = 1.0;
    double m_release;
};

// The AI voice between its player and the mixer: 9-band equaliser → peak limiter → headroom.
// apply() and the band view belong to the main thread; process() to the render thread, which
// picks up new settings at the start of its next block without waiting.
class VoiceOutputChain {
public:
    static constexpr int kBands = VoiceEQSettings::kBands;
    static constexpr std::array<double, kBands> kBandFrequencies = {63,   125,  250,  500,  1000,
                                                                    2000, 4000, 8000, 10000};
    static constexpr double kBandwidthOctaves = 1.0;
    static constexpr float kHeadroomVolume = 0.85f;

    explicit VoiceOutputChain(double sampleRate = 24000.0);

    // Main thread. Gains are always written; `enabled` false bypasses every band.
    void apply(const VoiceEQSettings& settings);
    const std::array<EqualizerBand, kBands>& bands() const { return m_bands; }

    // Set by the bridge when it connects the chain (main thread); read by the render thread.
    void setHeadroomVolume(float volume) { m_headroom.store(volume, std::memory_order_relaxed); }
    float headroomVolume() const { return m_headroom.load(std::memory_order_relaxed); }

    // Render thread: in place, mono at the chain's rate.
    void process(float* samples, int frames);

private:
    struct Design {
        std::array<BiquadCoefficients, kBands> coefficients{};
        std::array<bool, kBands> bypass{};
    };

    double m_sampleRate;
    std::array<EqualizerBand, kBands> m_bands{};
    LatestValue<Design> m_mailbox;
    std::atomic<float> m_headroom{1.0f};

    // Render-thread state.
    Design m_design{};
    std::array<std::array<double, 2>, kBands> m_state{};
    std::array<int, kBands> m_activeBands{};
    int m_active = 0;
    PeakLimiter m_limiter;
};

} // namespace vemira
