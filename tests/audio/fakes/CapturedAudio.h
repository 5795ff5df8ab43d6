#pragma once

// What the audio tests collect from engines running on their own threads, and how they
// measure it.

#include "audio/SoundDevice.h"
#include "support/Pcm.h"

#include <QByteArray>
#include <QList>
#include <cstdint>
#include <mutex>
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

inline std::optional<SoundDevice> byUID(const QList<SoundDevice>& devices, const QString& uid)
{
    for (const SoundDevice& device : devices) {
        if (device.uid == uid)
            return device;
    }
    return std::nullopt;
}

} // namespace vemira::testing
