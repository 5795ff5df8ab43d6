#pragma once

// Audio the tests send and how they measure what comes back: float samples, or wire PCM
// (signed 16-bit little-endian, mono).

#include <QByteArray>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

namespace vemira::testing {

// `frames` frames of a sine, the same value on every channel.
inline std::vector<float> sine(double frequency, double rate, double amplitude, int frames,
                               int channels = 1)
{
    std::vector<float> out(std::size_t(frames) * std::size_t(channels));
    for (int n = 0; n < frames; ++n)
        for (int c = 0; c < channels; ++c)
            out[std::size_t(n * channels + c)] =
                float(amplitude * std::sin(2.0 * std::numbers::pi * frequency * n / rate));
    return out;
}

// A tone as wire PCM at 24 kHz, `amplitude` in sample units (truncated toward zero).
inline QByteArray tonePCM(double seconds, double frequency = 440.0, double amplitude = 8000.0)
{
    const int frames = int(seconds * 24000);
    QByteArray pcm(frames * 2, Qt::Uninitialized);
    for (int n = 0; n < frames; ++n) {
        const auto s =
            std::int16_t(amplitude * std::sin(2.0 * std::numbers::pi * frequency * n / 24000.0));
        pcm[2 * n] = char(s & 0xff);
        pcm[2 * n + 1] = char((s >> 8) & 0xff);
    }
    return pcm;
}

// Bytes that differ from chunk to chunk (`seed`), where only their count and order matter.
inline QByteArray pcmChunk(int bytes, int seed)
{
    QByteArray pcm(bytes, Qt::Uninitialized);
    for (int i = 0; i < bytes; ++i)
        pcm[i] = char(seed * 31 + i * 7);
    return pcm;
}

// The amplitude of one frequency in `frames` samples (single-bin DFT over whole cycles).
inline double toneAmplitude(const float* x, int frames, double frequency, double rate)
{
    double c = 0, s = 0;
    for (int n = 0; n < frames; ++n) {
        const double phase = 2.0 * std::numbers::pi * frequency * n / rate;
        c += x[n] * std::cos(phase);
        s += x[n] * std::sin(phase);
    }
    return 2.0 * std::hypot(c, s) / frames;
}

// The same over `count` samples from `from`, what is missing past the end counting as silence.
inline double toneAmplitude(const std::vector<float>& x, std::size_t from, std::size_t count,
                            double frequency, double rate)
{
    if (count == 0 || from >= x.size())
        return 0.0;
    const std::size_t present = std::min(count, x.size() - from);
    return toneAmplitude(x.data() + from, int(present), frequency, rate) * double(present) /
           double(count);
}

inline double rms(const std::vector<float>& x, std::size_t from, std::size_t count)
{
    double sum = 0;
    std::size_t n = 0;
    for (; n < count && from + n < x.size(); ++n)
        sum += double(x[from + n]) * double(x[from + n]);
    return n ? std::sqrt(sum / double(n)) : 0.0;
}

// Wire PCM as floats.
inline std::vector<float> wireToFloat(const QByteArray& wire)
{
    std::vector<float> out(std::size_t(wire.size() / 2));
    for (std::size_t i = 0; i < out.size(); ++i) {
        const auto lo = std::uint8_t(wire[qsizetype(2 * i)]);
        const auto hi = std::uint8_t(wire[qsizetype(2 * i + 1)]);
        out[i] = float(std::int16_t(std::uint16_t(lo | (hi << 8)))) / 32768.0f;
    }
    return out;
}

} // namespace vemira::testing
