#pragma once

#include <cstdint>
#include <vector>

struct SpeexEchoState_;
struct SpeexPreprocessState_;

namespace vemira::pulse {

// Echo cancellation and automatic gain for a conversation on the computer's own microphone
// and loudspeakers (SpeexDSP's adaptive echo canceller followed by its preprocessor: residual
// echo suppression, noise suppression and AGC), mono, in 10 ms frames.
//
// The far-end reference is exactly what the engine hands to the loudspeaker, taken in the
// render path; the capture path pops it frame by frame. An echo can be cancelled only when its
// source is already in the filter's history when the echo arrives, so the reference may run
// ahead of the microphone by at most the echo delay (playback plus capture latency, which the
// engine measures and passes in) less a margin; any excess, such as what piled up while the
// loudspeaker started before the microphone, is skipped. Until the delay is known the
// reference is kept one to two frames ahead, which is causal on any real device.
//
// Threads: both playback() and capture() must be called on one and the same thread (the
// engine's loop thread, which runs both stream callbacks); no allocation after construction.
class EchoCanceller {
public:
    static constexpr int frameMs = 10;
    static constexpr int filterMs = 200;
    static constexpr int marginMs = 20;

    explicit EchoCanceller(int sampleRate);
    ~EchoCanceller();
    EchoCanceller(const EchoCanceller&) = delete;
    EchoCanceller& operator=(const EchoCanceller&) = delete;

    int frameSize() const { return m_frameSize; }
    // Samples between handing a sample to the loudspeaker and hearing its echo in what the
    // microphone delivers, from the server's latency figures.
    void setEchoDelay(int samples);
    int lead() const { return m_maxLead; }

    // What is about to be played: interleaved float frames; the channels are averaged.
    void playback(const float* interleaved, int frames, int channels);
    // Cleans mono microphone samples. Writes whole processed frames to `out` (which holds at
    // least frames + frameSize() samples) and returns how many; the rest waits for the next
    // call.
    int capture(const float* mono, int frames, float* out);

private:
    void processFrame(float* out);
    void popReference(std::int16_t* frame);

    int m_frameSize;
    int m_margin;
    int m_maxLead;
    SpeexEchoState_* m_echo = nullptr;
    SpeexPreprocessState_* m_preprocess = nullptr;
    std::vector<std::int16_t> m_ring; // far-end reference, a ring of int16 samples
    std::size_t m_ringRead = 0;
    std::size_t m_ringFill = 0;
    std::vector<std::int16_t> m_near; // microphone samples of the frame being filled
    int m_nearFill = 0;
    std::vector<std::int16_t> m_far;
    std::vector<std::int16_t> m_clean;
};

} // namespace vemira::pulse
