#include "audio/AudioFormats.h"

#include <cmath>
#include <cstring>
#include <speex/speex_resampler.h>

namespace vemira {

std::unique_ptr<Resampler> Resampler::make(double inRate, double outRate)
{
    if (!(inRate > 0) || !(outRate > 0) || !std::isfinite(inRate) || !std::isfinite(outRate))
        return nullptr;
    if (inRate == outRate)
        return std::unique_ptr<Resampler>(new Resampler(inRate, outRate, nullptr));
    // Device rates are whole numbers in practice; the resampler wants integers.
    const auto in = spx_uint32_t(std::lround(inRate));
    const auto out = spx_uint32_t(std::lround(outRate));
    if (in == 0 || out == 0)
        return nullptr;
    int err = 0;
    SpeexResamplerState* state = speex_resampler_init(1, in, out, kQuality, &err);
    if (!state || err != RESAMPLER_ERR_SUCCESS)
        return nullptr;
    // Drop the filter's start-up delay so converted audio lines up with its source.
    speex_resampler_skip_zeros(state);
    return std::unique_ptr<Resampler>(new Resampler(inRate, outRate, state));
}

Resampler::Resampler(double inRate, double outRate, SpeexResamplerState_* state)
    : m_inRate(inRate), m_outRate(outRate), m_state(state)
{}

Resampler::~Resampler()
{
    if (m_state)
        speex_resampler_destroy(m_state);
}

int Resampler::maxOutput(int inFrames) const
{
    return int(std::ceil(double(inFrames) * m_outRate / m_inRate)) + 64;
}

void Resampler::reset()
{
    if (m_state) {
        speex_resampler_reset_mem(m_state);
        speex_resampler_skip_zeros(m_state);
    }
    m_pending = 0;
    m_pendingOffset = 0;
}

int Resampler::processRaw(const float* in, int* inFrames, int inStride, float* out, int* outFrames)
{
    if (inStride != m_stride) {
        speex_resampler_set_input_stride(m_state, spx_uint32_t(inStride));
        m_stride = inStride;
    }
    auto inLen = spx_uint32_t(*inFrames);
    auto outLen = spx_uint32_t(*outFrames);
    const int err = speex_resampler_process_float(m_state, 0, in, &inLen, out, &outLen);
    *inFrames = int(inLen);
    *outFrames = int(outLen);
    return err;
}

int Resampler::process(const float* in, int inFrames, int inStride, float* out, int outCapacity)
{
    if (!m_state) {
        const int frames = inFrames < outCapacity ? inFrames : outCapacity;
        for (int i = 0; i < frames; ++i)
            out[i] = in[std::size_t(i) * std::size_t(inStride)];
        return frames;
    }
    int written = 0;
    int consumed = 0;
    // The resampler may stop early when its internal step fills; loop until the input is used.
    while (consumed < inFrames && written < outCapacity) {
        int inCount = inFrames - consumed;
        int outCount = outCapacity - written;
        if (processRaw(in + std::size_t(consumed) * std::size_t(inStride), &inCount, inStride,
                       out + written, &outCount) != RESAMPLER_ERR_SUCCESS)
            return -1;
        if (inCount == 0 && outCount == 0)
            break;
        consumed += inCount;
        written += outCount;
    }
    return written;
}

std::unique_ptr<InputAudioConversion> InputAudioConversion::make(const DeviceFormat& source,
                                                                 const AudioFormat& target)
{
    if (!source.isUsable() || target.channels != 1 || !(target.sampleRate > 0))
        return nullptr;
    auto resampler = Resampler::make(source.sampleRate, target.sampleRate);
    if (!resampler)
        return nullptr;
    auto conversion = std::unique_ptr<InputAudioConversion>(new InputAudioConversion);
    conversion->m_source = source;
    conversion->m_target = target;
    conversion->m_resampler = std::move(resampler);
    return conversion;
}

int InputAudioConversion::convert(const float* interleaved, int frames, float* out, int outCapacity)
{
    return m_resampler->process(interleaved, frames, m_source.channels, out, outCapacity);
}

float channelZeroPeak(const float* interleaved, int frames, int channels)
{
    float peak = 0;
    for (int i = 0; i < frames; ++i) {
        const float v = std::fabs(interleaved[std::size_t(i) * std::size_t(channels)]);
        if (v > peak)
            peak = v;
    }
    return peak;
}

} // namespace vemira
