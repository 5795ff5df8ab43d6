#pragma once

// What the audio tests collect from engines running on their own threads, and how they
// measure it.

#include "audio/SoundDevice.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QList>
#include <QThread>
#include <cmath>
#include <cstdint>
#include <mutex>
#include <numbers>
#include <optional>
#include <vector>

namespace vemira::testing {

// Wire audio received on the capture thread, read on the main thread.
struct Received {
    std::mutex lock;
    QByteArray bytes;
    void add(const QByteArray& block)
    {
        std::lock_guard guard(lock);
        bytes += block;
    }
    QByteArray all()
    {
        std::lock_guard guard(lock);
        return bytes;
    }
    qsizetype size()
    {
        std::lock_guard guard(lock);
        return bytes.size();
    }
};

// Samples captured by a bare engine, mono (channel 0).
struct Samples {
    std::mutex lock;
    std::vector<float> values;
    void add(const float* interleaved, int frames, int channels)
    {
        std::lock_guard guard(lock);
        for (int i = 0; i < frames; ++i)
            values.push_back(interleaved[std::size_t(i) * std::size_t(channels)]);
    }
    std::vector<float> all()
    {
        std::lock_guard guard(lock);
        return values;
    }
};

// The amplitude of one frequency over `count` samples from `from`.
inline double toneAmplitude(const std::vector<float>& x, std::size_t from, std::size_t count,
                            double frequency, double rate)
{
    double c = 0, s = 0;
    for (std::size_t n = 0; n < count && from + n < x.size(); ++n) {
        const double phase = 2.0 * std::numbers::pi * frequency * double(n) / rate;
        c += x[from + n] * std::cos(phase);
        s += x[from + n] * std::sin(phase);
    }
    return 2.0 * std::hypot(c, s) / double(count);
}

inline double rms(const std::vector<float>& x, std::size_t from, std::size_t count)
{
    double sum = 0;
    std::size_t n = 0;
    for (; n < count && from + n < x.size(); ++n)
        sum += double(x[from + n]) * double(x[from + n]);
    return n ? std::sqrt(sum / double(n)) : 0.0;
}

// 16-bit little-endian wire audio as floats.
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

inline std::optional<SoundDevice> byUID(const QList<SoundDevice>& devices, const QString& uid)
{
    for (const SoundDevice& device : devices) {
        if (device.uid == uid)
            return device;
    }
    return std::nullopt;
}

// Lets real devices run for a while with the main thread's hand-offs delivered.
inline void pump(int milliseconds)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < milliseconds) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(5);
    }
}

} // namespace vemira::testing
