#include "audio/AudioFiles.h"

#include <QFile>
#include <cstring>

namespace vemira::AudioFiles {

namespace {
void putBE32(QByteArray& b, std::uint32_t v)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        b.append(char((v >> shift) & 0xFF));
}
void putBE64(QByteArray& b, std::uint64_t v)
{
    for (int shift = 56; shift >= 0; shift -= 8)
        b.append(char((v >> shift) & 0xFF));
}
void putLE32(QByteArray& b, std::uint32_t v)
{
    for (int shift = 0; shift <= 24; shift += 8)
        b.append(char((v >> shift) & 0xFF));
}
void putLE16(QByteArray& b, std::uint16_t v)
{
    b.append(char(v & 0xFF));
    b.append(char(v >> 8));
}
std::uint32_t getLE32(const char* p)
{
    return std::uint32_t(std::uint8_t(p[0])) | (std::uint32_t(std::uint8_t(p[1])) << 8) |
           (std::uint32_t(std::uint8_t(p[2])) << 16) | (std::uint32_t(std::uint8_t(p[3])) << 24);
}
} // namespace

QByteArray cafHeader(double sampleRate)
{
    QByteArray b;
    b.append("caff", 4);
    putBE32(b, 0x00010000); // version 1, flags 0
    b.append("desc", 4);
    putBE64(b, 32);
    std::uint64_t rateBits = 0;
    std::memcpy(&rateBits, &sampleRate, sizeof rateBits);
    putBE64(b, rateBits);
    b.append("lpcm", 4);
    putBE32(b, 1u | 2u); // float, little-endian
    putBE32(b, 4);       // bytes per packet
    putBE32(b, 1);       // frames per packet
    putBE32(b, 1);       // channels
    putBE32(b, 32);      // bits per channel
    b.append("data", 4);
    putBE64(b, ~std::uint64_t(0)); // size unknown: to the end of the file
    putBE32(b, 0);                 // edit count
    return b;
}

QByteArray wavFloatHeader(double sampleRate, std::int64_t frames)
{
    const auto rate = std::uint32_t(sampleRate);
    const auto dataBytes = std::uint32_t(frames * 4);
    QByteArray b;
    b.append("RIFF", 4);
    putLE32(b, std::uint32_t(kWavHeaderBytes - 8) + dataBytes);
    b.append("WAVE", 4);
    b.append("fmt ", 4);
    putLE32(b, 18);
    putLE16(b, 3); // IEEE float
    putLE16(b, 1);
    putLE32(b, rate);
    putLE32(b, rate * 4);
    putLE16(b, 4);
    putLE16(b, 32);
    putLE16(b, 0);
    b.append("fact", 4);
    putLE32(b, 4);
    putLE32(b, std::uint32_t(frames));
    b.append("data", 4);
    putLE32(b, dataBytes);
    return b;
}

Result<std::int64_t> wavFrames(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return AppError(QStringLiteral("Impossible d’ouvrir l’enregistrement : ") +
                        file.errorString() + QStringLiteral("."));
    const QByteArray head = file.read(12);
    if (head.size() < 12 || std::memcmp(head.constData(), "RIFF", 4) != 0 ||
        std::memcmp(head.constData() + 8, "WAVE", 4) != 0)
        return AppError(QStringLiteral("L’enregistrement n’est pas un fichier WAV lisible."));
    int bytesPerFrame = 0;
    while (!file.atEnd()) {
        const QByteArray chunk = file.read(8);
        if (chunk.size() < 8)
            break;
        const std::uint32_t size = getLE32(chunk.constData() + 4);
        if (std::memcmp(chunk.constData(), "fmt ", 4) == 0) {
            const QByteArray fmt = file.read(size + (size & 1));
            if (fmt.size() >= 16)
                bytesPerFrame = std::uint8_t(fmt[12]) | (std::uint8_t(fmt[13]) << 8);
            continue;
        }
        if (std::memcmp(chunk.constData(), "data", 4) == 0 && bytesPerFrame > 0) {
            const qint64 available = file.size() - file.pos();
            return std::int64_t(std::min<qint64>(available, size) / bytesPerFrame);
        }
        file.seek(file.pos() + size + (size & 1));
    }
    return AppError(QStringLiteral("L’enregistrement n’est pas un fichier WAV lisible."));
}

} // namespace vemira::AudioFiles
