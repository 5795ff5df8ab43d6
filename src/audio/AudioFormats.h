#pragma once

#include "audio/AudioDeviceIO.h"

#include <QByteArray>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

struct SpeexResamplerState_;

namespace vemira {

// Wire audio: signed 16-bit little-endian, 24 kHz, mono, no header (48,000 bytes a second).
// Play audio: 32-bit float, 24 kHz, mono, full scale ±1.0.
inline constexpr double kWireRate = 24000.0;
inline constexpr int kWireBytesPerFrame = 2;

enum class SampleType { Int16, Float32 };

struct AudioFormat {
    SampleType sampleType = SampleType::Float32;
    double sampleRate = 0;
    int channels = 0;
    bool operator==(const AudioFormat&) const = default;
};

inline constexpr AudioFormat wireFormat{SampleType::Int16, kWireRate, 1};
inline constexpr AudioFormat playFormat{SampleType::Float32, kWireRate, 1};

// Band-limited mono sample-rate conversion (SpeexDSP's resampler). Streaming: keeps its filter
// history across calls, never allocates after construction, and costs the same for every
// block, which suits an audio thread better than a block-FFT converter with its internal
// buffering. Equal rates pass through untouched. Owned by one thread at a time.
class Resampler {
public:
    // Quality 5 of SpeexDSP: 80-tap Kaiser-10 windowed sinc, about 100 dB of stopband
    // attenuation and a passband to 92% of the lower Nyquist frequency (11 kHz at 24 kHz).
    static constexpr int kQuality = 5;

    static std::unique_ptr<Resampler> make(double inRate, double outRate);
    ~Resampler();
    Resampler(const Resampler&) = delete;
    Resampler& operator=(const Resampler&) = delete;

    // Converts every input frame (taken every `inStride`-th value, i.e. channel 0 of an
    // interleaved block) and returns the number of output frames written, at most
    // outCapacity. outCapacity should be at least maxOutput(inFrames).
    int process(const float* in, int inFrames, int inStride, float* out, int outCapacity);
    // Produces exactly outFrames frames, pulling input from `source` as needed.
    // source(buffer, frames) must fill `frames` mono frames.
    template <typename Source>
    void pull(float* out, int outFrames, float* scratch, int scratchFrames, Source&& source);

    int maxOutput(int inFrames) const;
    double inRate() const { return m_inRate; }
    double outRate() const { return m_outRate; }
    bool passThrough() const { return m_state == nullptr; }
    void reset();

private:
    Resampler(double inRate, double outRate, SpeexResamplerState_* state);
    int processRaw(const float* in, int* inFrames, int inStride, float* out, int* outFrames);

    double m_inRate;
    double m_outRate;
    SpeexResamplerState_* m_state; // null for equal rates
    int m_stride = 1;
    // Pull mode keeps leftover input between calls.
    int m_pending = 0;
    int m_pendingOffset = 0;
};

// Device capture format → 24 kHz mono (channel 0 only, no downmix), in float.
// Exists only for a usable source and a mono target.
class InputAudioConversion {
public:
    static std::unique_ptr<InputAudioConversion> make(const DeviceFormat& source,
                                                      const AudioFormat& target);
    // Capture thread. Returns the frames written to `out` (capacity maxOutput(frames)).
    int convert(const float* interleaved, int frames, float* out, int outCapacity);
    int maxOutput(int frames) const { return m_resampler->maxOutput(frames); }
    const DeviceFormat& source() const { return m_source; }
    const AudioFormat& target() const { return m_target; }

private:
    DeviceFormat m_source;
    AudioFormat m_target;
    std::unique_ptr<Resampler> m_resampler;
};

// Float → wire sample: scale by 32768, round to nearest, clamp to the 16-bit range.
inline std::int16_t floatToWire(float x)
{
    if (!(x == x))
        return 0;
    double v = double(x) * 32768.0;
    v = v < 0 ? v - 0.5 : v + 0.5;
    if (v >= 32767.0)
        return 32767;
    if (v <= -32768.0)
        return -32768;
    return std::int16_t(v);
}
inline float wireToFloat(std::int16_t s)
{
    return float(s) * (1.0f / 32768.0f);
}

// Little-endian 16-bit access, so the wire layout never depends on the host.
inline std::int16_t readWire(const char* p)
{
    return std::int16_t(std::uint16_t(std::uint8_t(p[0])) |
                        (std::uint16_t(std::uint8_t(p[1])) << 8));
}
inline void writeWire(char* p, std::int16_t s)
{
    p[0] = char(std::uint16_t(s) & 0xFF);
    p[1] = char(std::uint16_t(s) >> 8);
}

// Largest |x| of channel 0 of an interleaved block.
float channelZeroPeak(const float* interleaved, int frames, int channels);

template <typename Source>
void Resampler::pull(float* out, int outFrames, float* scratch, int scratchFrames, Source&& source)
{
    if (!m_state) {
        source(out, outFrames);
        return;
    }
    int written = 0;
    while (written < outFrames) {
        if (m_pending == 0) {
            // Ask for a little more than needed; the rest waits for the next call.
            const double wanted = double(outFrames - written) * m_inRate / m_outRate + 2.0;
            int frames = int(wanted);
            if (frames > scratchFrames)
                frames = scratchFrames;
            if (frames < 1)
                frames = 1;
            source(scratch, frames);
            m_pending = frames;
            m_pendingOffset = 0;
        }
        int inFrames = m_pending;
        int outCount = outFrames - written;
        processRaw(scratch + m_pendingOffset, &inFrames, 1, out + written, &outCount);
        m_pending -= inFrames;
        m_pendingOffset += inFrames;
        written += outCount;
    }
}

} // namespace vemira
