#include "ai/WireBase64.h"

#include <QtEndian>
#include <array>
#if defined(__x86_64__)
#include <immintrin.h>
#endif
#include <cstring>

namespace vemira::realtime {

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr quint8 invalid = 0xff;

constexpr std::array<quint8, 128> decodingTable()
{
    std::array<quint8, 128> table{};
    for (auto& value : table)
        value = invalid;
    for (int i = 0; i < 64; ++i)
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<quint8>(i);
    return table;
}

constexpr auto sextets = decodingTable();

inline quint32 sextet(char16_t c)
{
    return c < 128 ? sextets[c] : invalid;
}

// The sextet of a letter already moved to its place in the 24-bit group, one table per
// position; bit 31 marks a character outside the alphabet.
constexpr quint32 badLetter = 0x8000'0000u;
struct PlacedTables {
    std::array<std::array<quint32, 128>, 4> at{};
    constexpr PlacedTables()
    {
        for (int position = 0; position < 4; ++position) {
            for (int c = 0; c < 128; ++c) {
                const quint8 value = sextets[c];
                at[position][c] =
                    value == invalid ? badLetter : quint32(value) << (6 * (3 - position));
            }
        }
    }
};
constexpr PlacedTables placed;

bool isSpace(char16_t c)
{
    return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r';
}

} // namespace

qsizetype base64Size(qsizetype bytes)
{
    return (bytes + 2) / 3 * 4;
}

// Two output characters per lookup: 12 bits of input select a pair of alphabet letters.
struct PairTable {
    std::array<char16_t, 2 * 4096> pairs{};
    constexpr PairTable()
    {
        for (int i = 0; i < 4096; ++i) {
            pairs[2 * i] = char16_t(alphabet[i >> 6]);
            pairs[2 * i + 1] = char16_t(alphabet[i & 63]);
        }
    }
};
constexpr PairTable pairTable;

void encodeBase64(const QByteArray& bytes, char16_t* out)
{
    const auto* in = reinterpret_cast<const unsigned char*>(bytes.constData());
    const char16_t* pairs = pairTable.pairs.data();
    const qsizetype whole = bytes.size() / 3 * 3;
    for (qsizetype i = 0; i < whole; i += 3) {
        const quint32 n = (quint32(in[i]) << 16) | (quint32(in[i + 1]) << 8) | in[i + 2];
        std::memcpy(out, pairs + 2 * (n >> 12), 2 * sizeof(char16_t));
        std::memcpy(out + 2, pairs + 2 * (n & 0xfff), 2 * sizeof(char16_t));
        out += 4;
    }
    const qsizetype rest = bytes.size() - whole;
    if (rest > 0) {
        const quint32 n =
            (quint32(in[whole]) << 16) | (rest == 2 ? quint32(in[whole + 1]) << 8 : 0);
        out[0] = char16_t(alphabet[n >> 18]);
        out[1] = char16_t(alphabet[(n >> 12) & 63]);
        out[2] = rest == 2 ? char16_t(alphabet[(n >> 6) & 63]) : u'=';
        out[3] = u'=';
    }
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define VEMIRA_BASE64_SSSE3 1

// 16 letters at a time (W. Muła's method): validate with two nibble lookups, turn letters into
// sextets with a third, then pack four sextets into three bytes with two multiply-adds.
// Returns the number of letters consumed (a multiple of 16); `bad` collects invalid letters.
static __attribute__((target("ssse3"))) qsizetype
decodeBlocksSsse3(const char16_t* in, qsizetype count, unsigned char* out, bool* bad)
{
    const __m128i lutLo = _mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,
                                        0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A);
    const __m128i lutHi = _mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10,
                                        0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
    const __m128i lutRoll = _mm_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
    const __m128i mask2F = _mm_set1_epi8(0x2F);
    const __m128i pack = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
    __m128i invalidBits = _mm_setzero_si128();
    qsizetype done = 0;
    for (; done + 16 <= count; done += 16) {
        const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + done));
        const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + done + 8));
        // Characters above 255 saturate to 0xFF, which is not a letter.
        __m128i letters = _mm_packus_epi16(first, second);
        const __m128i hiNibbles = _mm_and_si128(_mm_srli_epi32(letters, 4), mask2F);
        const __m128i loNibbles = _mm_and_si128(letters, mask2F);
        const __m128i hi = _mm_shuffle_epi8(lutHi, hiNibbles);
        const __m128i lo = _mm_shuffle_epi8(lutLo, loNibbles);
        invalidBits = _mm_or_si128(invalidBits, _mm_and_si128(lo, hi));
        const __m128i isSlash = _mm_cmpeq_epi8(letters, mask2F);
        const __m128i roll = _mm_shuffle_epi8(lutRoll, _mm_add_epi8(isSlash, hiNibbles));
        letters = _mm_add_epi8(letters, roll);
        const __m128i pairs = _mm_maddubs_epi16(letters, _mm_set1_epi32(0x01400140));
        const __m128i groups = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + done / 4 * 3),
                         _mm_shuffle_epi8(groups, pack));
    }
    if (_mm_movemask_epi8(_mm_cmpeq_epi8(invalidBits, _mm_setzero_si128())) != 0xFFFF)
        *bad = true;
    return done;
}

static bool hasSsse3()
{
    static const bool supported = __builtin_cpu_supports("ssse3");
    return supported;
}
#endif

std::optional<QByteArray> decodeBase64(QStringView text)
{
    const qsizetype size = text.size();
    if (size % 4 != 0)
        return std::nullopt;
    if (size == 0)
        return QByteArray();
    const char16_t* in = text.utf16();
    const int padding = in[size - 1] == u'=' ? (in[size - 2] == u'=' ? 2 : 1) : 0;
    const qsizetype decodedSize = size / 4 * 3 - padding;
    // Spare room: vector stores write 16 bytes for 12, scalar ones 4 for 3.
    QByteArray bytes(decodedSize + 4, Qt::Uninitialized);
    auto* out = reinterpret_cast<unsigned char*>(bytes.data());

    // No branch per character: invalid letters and wide characters are collected on the way
    // and judged once at the end (the bytes written meanwhile are then thrown away). Each group
    // is stored as 4 bytes, the fourth overwritten by the next group: one spare byte at the end.
    const qsizetype whole = padding ? size - 4 : size;
    quint32 invalidSeen = 0;
    char16_t wide = 0;
    const auto& t = placed.at;
    qsizetype i = 0;
#ifdef VEMIRA_BASE64_SSSE3
    if (hasSsse3()) {
        bool bad = false;
        i = decodeBlocksSsse3(in, whole, out, &bad);
        if (bad)
            return std::nullopt;
        out += i / 4 * 3;
    }
#endif
    for (; i < whole; i += 4) {
        const char16_t c0 = in[i], c1 = in[i + 1], c2 = in[i + 2], c3 = in[i + 3];
        wide |= c0 | c1 | c2 | c3;
        const quint32 n = t[0][c0 & 0x7f] | t[1][c1 & 0x7f] | t[2][c2 & 0x7f] | t[3][c3 & 0x7f];
        invalidSeen |= n;
        const quint32 group = qToBigEndian(n << 8);
        std::memcpy(out, &group, sizeof group);
        out += 3;
    }
    if ((invalidSeen & badLetter) || (wide & ~char16_t(0x7f)))
        return std::nullopt;
    if (padding) {
        const char16_t* last = in + size - 4;
        const quint32 a = sextet(last[0]), b = sextet(last[1]);
        const quint32 c = padding == 1 ? sextet(last[2]) : 0;
        if ((a | b | c) & 0x80)
            return std::nullopt;
        const quint32 n = (a << 18) | (b << 12) | (c << 6);
        out[0] = static_cast<unsigned char>(n >> 16);
        if (padding == 1)
            out[1] = static_cast<unsigned char>(n >> 8);
    }
    bytes.resize(decodedSize);
    return bytes;
}

AudioDeltaScan scanAudioDelta(QStringView frame)
{
    const char16_t* p = frame.utf16();
    const char16_t* const end = p + frame.size();
    const auto skipSpace = [&] {
        while (p < end && isSpace(*p))
            ++p;
    };
    // A string without escapes, control or non-ASCII characters; returns false otherwise.
    const auto plainString = [&](QStringView* out) {
        if (p == end || *p != u'"')
            return false;
        const char16_t* start = ++p;
        while (p < end && *p != u'"') {
            if (*p < 0x20 || *p > 0x7e || *p == u'\\')
                return false;
            ++p;
        }
        if (p == end)
            return false;
        *out = QStringView(start, p - start);
        ++p;
        return true;
    };
    const auto plainInteger = [&] {
        const char16_t* start = p;
        if (p < end && *p == u'-')
            ++p;
        const char16_t* digits = p;
        while (p < end && *p >= u'0' && *p <= u'9')
            ++p;
        const qsizetype count = p - digits;
        if (count == 0 || count > 15 || (count > 1 && *digits == u'0'))
            return false;
        return p > start && (p == end || (*p != u'.' && *p != u'e' && *p != u'E'));
    };

    AudioDeltaScan notRecognised;
    skipSpace();
    if (p == end || *p++ != u'{')
        return notRecognised;
    std::optional<QStringView> type;
    std::optional<QStringView> delta;
    std::optional<QStringView> responseId;
    for (;;) {
        skipSpace();
        QStringView key;
        if (!plainString(&key))
            return notRecognised;
        skipSpace();
        if (p == end || *p++ != u':')
            return notRecognised;
        skipSpace();
        QStringView text;
        const bool isString = p < end && *p == u'"';
        if (isString && key == u"delta") {
            // The bulk of the frame: its characters are checked by the decoder, which accepts
            // nothing but the base64 alphabet (so no escape, control or non-ASCII character).
            const qsizetype close = QStringView(p + 1, end).indexOf(u'"');
            if (close < 0)
                return notRecognised;
            text = QStringView(p + 1, close);
            p += close + 2;
        } else if (isString ? !plainString(&text) : !plainInteger()) {
            return notRecognised;
        }
        if (key == u"type" || key == u"delta" || key == u"response_id") {
            auto& slot = key == u"type" ? type : key == u"delta" ? delta : responseId;
            if (slot || !isString)
                return notRecognised; // repeated or unusual: the general parser decides
            slot = text;
        }
        skipSpace();
        if (p == end)
            return notRecognised;
        if (*p == u',') {
            ++p;
            continue;
        }
        if (*p++ != u'}')
            return notRecognised;
        break;
    }
    skipSpace();
    if (p != end || !type || *type != u"response.output_audio.delta" || !delta)
        return notRecognised;
    auto pcm = decodeBase64(*delta);
    if (!pcm)
        return notRecognised; // maybe escapes, maybe bad audio: the JSON reading tells
    return AudioDeltaScan{AudioDeltaScan::Audio, std::move(*pcm),
                          responseId ? responseId->toString() : QString()};
}

} // namespace vemira::realtime
