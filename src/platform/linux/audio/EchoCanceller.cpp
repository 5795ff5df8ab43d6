#include "platform/linux/audio/EchoCanceller.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <speex/speex_echo.h>
#include <speex/speex_preprocess.h>

namespace vemira::pulse {

namespace {
std::int16_t toInt16(float x)
{
    if (!std::isfinite(x))
        return 0;
    const float scaled = std::clamp(x, -1.0f, 1.0f) * 32767.0f;
    return std::int16_t(std::lround(scaled));
}
} // namespace

EchoCanceller::EchoCanceller(int sampleRate)
    : m_frameSize(std::max(1, sampleRate * frameMs / 1000)),
      m_margin(std::max(0, sampleRate * marginMs / 1000)), m_maxLead(m_frameSize),
      m_ring(std::size_t(std::max(1, sampleRate))), m_near(std::size_t(m_frameSize)),
      m_far(std::size_t(m_frameSize)), m_clean(std::size_t(m_frameSize))
{
    m_echo = speex_echo_state_init(m_frameSize, sampleRate * filterMs / 1000);
    speex_echo_ctl(m_echo, SPEEX_ECHO_SET_SAMPLING_RATE, &sampleRate);
    m_preprocess = speex_preprocess_state_init(m_frameSize, sampleRate);
    int on = 1;
    speex_preprocess_ctl(m_preprocess, SPEEX_PREPROCESS_SET_DENOISE, &on);
    speex_preprocess_ctl(m_preprocess, SPEEX_PREPROCESS_SET_AGC, &on);
    // A modest ceiling: the AGC should even out a quiet speaker, not lift room noise to speech.
    int maxGainDb = 20;
    speex_preprocess_ctl(m_preprocess, SPEEX_PREPROCESS_SET_AGC_MAX_GAIN, &maxGainDb);
    speex_preprocess_ctl(m_preprocess, SPEEX_PREPROCESS_SET_ECHO_STATE, m_echo);
}

EchoCanceller::~EchoCanceller()
{
    speex_preprocess_state_destroy(m_preprocess);
    speex_echo_state_destroy(m_echo);
}

void EchoCanceller::playback(const float* interleaved, int frames, int channels)
{
    if (channels <= 0)
        return;
    const std::size_t capacity = m_ring.size();
    for (int i = 0; i < frames; ++i) {
        float sum = 0;
        for (int c = 0; c < channels; ++c)
            sum += interleaved[std::size_t(i) * std::size_t(channels) + std::size_t(c)];
        if (m_ringFill == capacity) { // a full second ahead: the oldest is useless anyway
            m_ringRead = (m_ringRead + 1) % capacity;
            --m_ringFill;
        }
        m_ring[(m_ringRead + m_ringFill) % capacity] = toInt16(sum / float(channels));
        ++m_ringFill;
    }
}

void EchoCanceller::popReference(std::int16_t* frame)
{
    const std::size_t capacity = m_ring.size();
    const std::size_t step = std::size_t(m_frameSize);
    const std::size_t lead = std::size_t(m_maxLead);
    if (m_ringFill > lead + 2 * step) {
        // The loudspeaker side ran ahead (it started first, or its clock is faster): skip
        // reference so that what we pop was played no earlier than the echo we now hear.
        // A frame of slack keeps the callbacks' jitter from moving the alignment each time.
        const std::size_t skip = m_ringFill - (lead + step);
        m_ringRead = (m_ringRead + skip) % capacity;
        m_ringFill -= skip;
    }
    if (m_ringFill < step) {
        // Nothing played yet for this frame: a silent reference, and what is there waits so
        // the alignment does not jump.
        std::fill(frame, frame + m_frameSize, std::int16_t(0));
        return;
    }
    for (int i = 0; i < m_frameSize; ++i)
        frame[i] = m_ring[(m_ringRead + std::size_t(i)) % capacity];
    m_ringRead = (m_ringRead + step) % capacity;
    m_ringFill -= step;
}

void EchoCanceller::setEchoDelay(int samples)
{
    const int most = int(m_ring.size()) - 3 * m_frameSize;
    // At least a frame of lead, so the callbacks' jitter does not run the reference dry.
    const int lead = std::clamp(samples - m_margin, m_frameSize, std::max(m_frameSize, most));
    // Each change of the lead moves the alignment the filter has learnt: only real changes.
    if (std::abs(lead - m_maxLead) > m_frameSize / 2)
        m_maxLead = lead;
}

void EchoCanceller::processFrame(float* out)
{
    popReference(m_far.data());
    speex_echo_cancellation(m_echo, m_near.data(), m_far.data(), m_clean.data());
    speex_preprocess_run(m_preprocess, m_clean.data());
    for (int i = 0; i < m_frameSize; ++i)
        out[i] = float(m_clean[std::size_t(i)]) / 32768.0f;
}

int EchoCanceller::capture(const float* mono, int frames, float* out)
{
    int written = 0;
    for (int i = 0; i < frames; ++i) {
        m_near[std::size_t(m_nearFill++)] = toInt16(mono[i]);
        if (m_nearFill == m_frameSize) {
            processFrame(out + written);
            written += m_frameSize;
            m_nearFill = 0;
        }
    }
    return written;
}

} // namespace vemira::pulse
