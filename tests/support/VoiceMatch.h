#pragma once

// Finding a known voice in a recording, for the whole-call tests: an independent WAV reader,
// a cheap decimation and a normalised cross-correlation (so the recorder's mixing weight
// does not matter).
#include <QString>
#include <optional>
#include <vector>

namespace vemira::e2e {

struct Wav {
    int format = 0;
    int channels = 0;
    int rate = 0;
    int bits = 0;
    std::vector<float> samples;
};

// A deliberately independent reader: the file must be a plain RIFF/WAVE of float samples.
std::optional<Wav> readWav(const QString& path);

// Averages each `factor` samples into one.
std::vector<float> decimate(const float* samples, qsizetype count, int factor);
inline std::vector<float> decimate(const std::vector<float>& samples, int factor)
{
    return decimate(samples.data(), qsizetype(samples.size()), factor);
}

struct VoiceMatch {
    double seconds = 0; // where the reference starts in the recording
    double correlation = 0;
};

// Where, between `from` and `to` seconds, the recording looks most like the reference; both
// at `rate` samples a second.
VoiceMatch findVoice(const std::vector<float>& recording, const std::vector<float>& reference,
                     double rate, double from, double to);

} // namespace vemira::e2e
