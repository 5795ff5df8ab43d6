#include "audio/ProbeMeter.h"

#include "audio/AudioFormats.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numbers>

namespace vemira {

void ProbeMeter::append(const QByteArray& bytes)
{
    append(bytes.constData(), int(bytes.size()));
}

void ProbeMeter::append(const char* bytes, int byteCount)
{
    std::lock_guard guard(m_lock);
    const int samples = byteCount / 2;
    for (int i = 0; i < samples; ++i) {
        const double x = double(readWire(bytes + 2 * i)) / 32768.0;
        // The phase runs on across blocks: it is derived from the running count.
        const double phase = 2.0 * std::numbers::pi * m_frequency * double(m_count) / 24000.0;
        m_cosine += x * std::cos(phase);
        m_sine += x * std::sin(phase);
        m_count += 1;
    }
}

double ProbeMeter::amplitude() const
{
    std::lock_guard guard(m_lock);
    if (m_count == 0)
        return 0;
    return 2.0 * std::hypot(m_cosine, m_sine) / double(m_count);
}

std::int64_t ProbeMeter::count() const
{
    std::lock_guard guard(m_lock);
    return m_count;
}

namespace ProbeTone {

QByteArray testTone(double frequency)
{
    QByteArray bytes(kSamples * 2, Qt::Uninitialized);
    for (int n = 0; n < kSamples; ++n) {
        const double remaining = double(kSamples - 1 - n); // samples after n
        const double envelope = std::min({double(n) / kFadeSamples, remaining / kFadeSamples, 1.0});
        const double value =
            std::sin(2.0 * std::numbers::pi * frequency * n / 24000.0) * kAmplitude * envelope;
        // Outside the 16-bit range only through a programming error: stop rather than wrap.
        if (!std::isfinite(value) || value <= -32769.0 || value >= 32768.0)
            std::abort();
        writeWire(bytes.data() + 2 * n, std::int16_t(std::trunc(value)));
    }
    return bytes;
}

bool passes(const ProbeMeter& meter)
{
    return meter.count() >= kMinimumSamples && meter.amplitude() > kMinimumAmplitude;
}

} // namespace ProbeTone

} // namespace vemira
