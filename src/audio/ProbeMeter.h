#pragma once

#include <QByteArray>
#include <cstdint>
#include <mutex>

namespace vemira {

// How much of one frequency a stream of wire audio holds (a single-bin Fourier sum).
// append() runs on the capture thread, amplitude() on the main thread; one lock covers both.
class ProbeMeter {
public:
    explicit ProbeMeter(double frequency) : m_frequency(frequency) {}

    void append(const QByteArray& bytes);
    void append(const char* bytes, int byteCount);

    // 2 × |sum| / count: the tone's peak amplitude relative to full scale; 0 before any sample.
    double amplitude() const;
    std::int64_t count() const;
    double frequency() const { return m_frequency; }

private:
    mutable std::mutex m_lock;
    std::int64_t m_count = 0;
    double m_cosine = 0;
    double m_sine = 0;
    const double m_frequency;
};

// The route probe's tones and its pass rule.
namespace ProbeTone {
inline constexpr double kCallFrequency = 733.0;
inline constexpr double kVoiceFrequency = 1103.0;
inline constexpr int kSamples = 168000;  // 7 s of wire audio
inline constexpr int kFadeSamples = 240; // 10 ms
inline constexpr double kAmplitude = 3276.0;
inline constexpr std::int64_t kMinimumSamples = 8000;
inline constexpr double kMinimumAmplitude = 0.012;

// 7 s of wire PCM: a sine at `frequency`, amplitude 3276, linear 10 ms fades, truncated.
QByteArray testTone(double frequency);

// The meter heard the tone well enough for the circuit to pass.
bool passes(const ProbeMeter& meter);
} // namespace ProbeTone

} // namespace vemira
