#include "VoiceMatch.h"

#include <QFile>
#include <algorithm>
#include <cmath>
#include <cstring>

namespace vemira::e2e {

std::optional<Wav> readWav(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray bytes = file.readAll();
    if (bytes.size() < 12 || !bytes.startsWith("RIFF") || bytes.mid(8, 4) != "WAVE")
        return std::nullopt;
    auto u16 = [&](qsizetype at) {
        return int(quint8(bytes[at])) | int(quint8(bytes[at + 1])) << 8;
    };
    auto u32 = [&](qsizetype at) { return qint64(u16(at)) | qint64(u16(at + 2)) << 16; };
    Wav wav;
    qsizetype at = 12;
    bool haveFormat = false;
    while (at + 8 <= bytes.size()) {
        const QByteArray id = bytes.mid(at, 4);
        const qint64 size = u32(at + 4);
        const qsizetype body = at + 8;
        if (id == "fmt " && size >= 16) {
            wav.format = u16(body);
            wav.channels = u16(body + 2);
            wav.rate = int(u32(body + 4));
            wav.bits = u16(body + 14);
            // WAVE_FORMAT_EXTENSIBLE: the real format is the sub-format's first two bytes.
            if (wav.format == 0xFFFE && size >= 26)
                wav.format = u16(body + 24);
            haveFormat = true;
        } else if (id == "data" && haveFormat) {
            const qint64 count = std::min<qint64>(size, bytes.size() - body) / 4;
            wav.samples.resize(size_t(count));
            std::memcpy(wav.samples.data(), bytes.constData() + body, size_t(count) * 4);
            return wav;
        }
        at = body + size + (size & 1);
    }
    return std::nullopt;
}

std::vector<float> decimate(const float* samples, qsizetype count, int factor)
{
    std::vector<float> out(size_t(count / factor));
    for (size_t i = 0; i < out.size(); ++i) {
        float sum = 0;
        for (int k = 0; k < factor; ++k)
            sum += samples[i * size_t(factor) + size_t(k)];
        out[i] = sum / float(factor);
    }
    return out;
}

VoiceMatch findVoice(const std::vector<float>& recording, const std::vector<float>& reference,
                     double rate, double from, double to)
{
    VoiceMatch best;
    best.correlation = -1;
    double refEnergy = 0;
    for (float r : reference)
        refEnergy += double(r) * r;
    const qsizetype first = std::max<qsizetype>(0, qsizetype(from * rate));
    const qsizetype last = std::min<qsizetype>(
        qsizetype(to * rate), qsizetype(recording.size()) - qsizetype(reference.size()));
    for (qsizetype lag = first; lag <= last; ++lag) {
        double dot = 0;
        double energy = 0;
        for (size_t i = 0; i < reference.size(); ++i) {
            const double x = recording[size_t(lag) + i];
            dot += x * reference[i];
            energy += x * x;
        }
        const double c = energy > 0 ? dot / std::sqrt(energy * refEnergy) : 0;
        if (c > best.correlation)
            best = {double(lag) / rate, c};
    }
    return best;
}

} // namespace vemira::e2e
