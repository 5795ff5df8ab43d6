// Decodes arbitrary bytes as history.json. Whatever decodes must encode to a file that reads
// back, and encoding must be stable from then on (a lone surrogate escaped in the input is the
// one thing the first write changes: UTF-8 cannot carry it).
#include "records/HistoryCodec.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes =
        QByteArray::fromRawData(reinterpret_cast<const char*>(data), qsizetype(size));
    const auto decoded = vemira::decodeHistory(bytes);
    if (!decoded)
        return 0;
    const auto encoded = vemira::encodeHistory(decoded.value());
    if (!encoded)
        return 0; // a value JSON cannot hold (never produced by decoding, but not a crash)
    const auto again = vemira::decodeHistory(encoded.value());
    if (!again)
        std::abort();
    const auto stable = vemira::encodeHistory(again.value());
    if (!stable || stable.value() != encoded.value())
        std::abort();
    return 0;
}
