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
    if (m_mailbox.take(m_design)) {
        // Only the active bands are run, in order, from a compact list.
        m_active = 0;
        for (int b = 0; b < kBands; ++b)
            if (!m_design.bypass[std::size_t(b)])
                m_activeBands[std::size_t(m_active++)] = b;
    }
    // Sample by sample through every active band: the bands of neighbouring samples overlap in
    // the processor's pipeline, where band by band each would wait on its own feedback.
    // Transposed direct form II in double: two state values a band, well-behaved numerically.
    std::array<double, kBands> z1{}, z2{};
    std::array<BiquadCoefficients, kBands> c{};
    for (int k = 0; k < m_active; ++k) {
        const auto band = std::size_t(m_activeBands[std::size_t(k)]);
        z1[std::size_t(k)] = m_state[band][0];
        z2[std::size_t(k)] = m_state[band][1];
        c[std::size_t(k)] = m_design.coefficients[band];
    }
    const int active = m_active;
    for (int i = 0; i < frames; ++i) {
        double x = samples[i];
        for (int k = 0; k < active; ++k) {
            const auto j = std::size_t(k);
            const double y = c[j].b0 * x + z1[j];
            z1[j] = c[j].b1 * x - c[j].a1 * y + z2[j];
            z2[j] = c[j].b2 * x - c[j].a2 * y;
            x = y;
        }
        samples[i] = float(x);
    }
    for (int k = 0; k < active; ++k) {
        const auto band = std::size_t(m_activeBands[std::size_t(k)]);
        // Long silences would otherwise decay into denormals, which are slow on some CPUs.
        m_state[band][0] = std::fabs(z1[std::size_t(k)]) < 1e-30 ? 0.0 : z1[std::size_t(k)];
        m_state[band][1] = std::fabs(z2[std::size_t(k)]) < 1e-30 ? 0.0 : z2[std::size_t(k)];
    }
    const float headroom = m_headroom.load(std::memory_order_relaxed);
    for (int i = 0; i < frames; ++i)
        samples[i] = m_limiter.process(samples[i]) * headroom;
}

} // namespace vemira
