#include "audio/VoiceOutputChain.h"

#include <cmath>
#include <numbers>

namespace vemira {

BiquadCoefficients peakingFilter(double sampleRate, double frequency, double bandwidthOctaves,
                                 double gainDB)
{
    const double a = std::pow(10.0, gainDB / 40.0);
    const double w0 = 2.0 * std::numbers::pi * frequency / sampleRate;
    const double sinW0 = std::sin(w0);
    const double cosW0 = std::cos(w0);
    // Bandwidth between the -3 dB points, corrected for the bilinear transform's warping.
    const double alpha = sinW0 * std::sinh(std::numbers::ln2 / 2.0 * bandwidthOctaves * w0 / sinW0);
    const double a0 = 1.0 + alpha / a;
    BiquadCoefficients c;
    c.b0 = (1.0 + alpha * a) / a0;
    c.b1 = (-2.0 * cosW0) / a0;
    c.b2 = (1.0 - alpha * a) / a0;
    c.a1 = (-2.0 * cosW0) / a0;
    c.a2 = (1.0 - alpha / a) / a0;
    return c;
}

PeakLimiter::PeakLimiter(double sampleRate)
    : m_release(std::exp(-1.0 / (kReleaseSeconds * sampleRate)))
{}

VoiceOutputChain::VoiceOutputChain(double sampleRate)
    : m_sampleRate(sampleRate), m_limiter(sampleRate)
{
    m_design.bypass.fill(true);
    apply(VoiceEQSettings{});
}

void VoiceOutputChain::apply(const VoiceEQSettings& settings)
{
    const auto gains = settings.safeGains();
    Design design;
    for (int i = 0; i < kBands; ++i) {
        const auto band = std::size_t(i);
        m_bands[band] = EqualizerBand{kBandFrequencies[band], kBandwidthOctaves, gains[band],
                                      !settings.enabled};
        design.coefficients[band] =
            peakingFilter(m_sampleRate, kBandFrequencies[band], kBandwidthOctaves, gains[band]);
        design.bypass[band] = !settings.enabled;
    }
    m_mailbox.publish(design);
}

void VoiceOutputChain::process(float* samples, int frames)
{
    m_mailbox.take(m_design);
    for (int b = 0; b < kBands; ++b) {
        const auto band = std::size_t(b);
        if (m_design.bypass[band])
            continue;
        const BiquadCoefficients& c = m_design.coefficients[band];
        double z1 = m_state[band][0];
        double z2 = m_state[band][1];
        // Transposed direct form II: two state values, good numeric behaviour in double.
        for (int i = 0; i < frames; ++i) {
            const double x = samples[i];
            const double y = c.b0 * x + z1;
            z1 = c.b1 * x - c.a1 * y + z2;
            z2 = c.b2 * x - c.a2 * y;
            samples[i] = float(y);
        }
        // Long silences would otherwise decay into denormals, which are slow on some CPUs.
        m_state[band][0] = std::fabs(z1) < 1e-30 ? 0.0 : z1;
        m_state[band][1] = std::fabs(z2) < 1e-30 ? 0.0 : z2;
    }
    const float headroom = m_headroom.load(std::memory_order_relaxed);
    for (int i = 0; i < frames; ++i)
        samples[i] = m_limiter.process(samples[i]) * headroom;
}

} // namespace vemira
