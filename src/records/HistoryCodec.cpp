#include "records/HistoryCodec.h"

#include "records/JsonRead.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QStringEncoder>
#include <algorithm>
#include <charconv>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <cmath>
#include <cstring>
#include <optional>
#include <string>

namespace vemira {

namespace {

// True when the text holds a character JSON must escape, or a surrogate. Runs over every
// string of the history at each save, hence the eight-at-a-time form where available.
bool needsCarefulEncoding(const char16_t* in, qsizetype n)
{
    qsizetype i = 0;
#if defined(__SSE2__)
    const __m128i space = _mm_set1_epi16(0x20);
    const __m128i quote = _mm_set1_epi16(0x22);
    const __m128i backslash = _mm_set1_epi16(0x5C);
    const __m128i surrogateMask = _mm_set1_epi16(short(0xF800));
    const __m128i surrogate = _mm_set1_epi16(short(0xD800));
    __m128i found = _mm_setzero_si128();
    for (; i + 8 <= n; i += 8) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
        found = _mm_or_si128(found, _mm_subs_epu16(space, v)); // non-zero where v < 0x20
        found = _mm_or_si128(found, _mm_cmpeq_epi16(v, quote));
        found = _mm_or_si128(found, _mm_cmpeq_epi16(v, backslash));
        found = _mm_or_si128(found, _mm_cmpeq_epi16(_mm_and_si128(v, surrogateMask), surrogate));
    }
    if (_mm_movemask_epi8(_mm_cmpeq_epi8(found, _mm_setzero_si128())) != 0xFFFF)
        return true;
#endif
    unsigned special = 0;
    for (; i < n; ++i) {
        const char16_t c = in[i];
        special |= unsigned(c < 0x20) | unsigned(c == u'"') | unsigned(c == u'\\') |
                   unsigned((c & 0xF800) == 0xD800);
    }
    return special != 0;
}

// A compact JSON writer for the history's fixed shapes. QJsonDocument would sort the keys
// and build a whole tree first; the history is rewritten on every edit, so the encoder
// writes straight into one buffer, keys in field order.
class Writer {
public:
    explicit Writer(qsizetype expected) { m_out.reserve(expected); }

    void raw(std::string_view text) { append(text.data(), qsizetype(text.size())); }

    void key(std::string_view name)
    {
        char* out = room(qsizetype(name.size()) + 3);
        *out++ = '"';
        std::memcpy(out, name.data(), name.size());
        out += name.size();
        *out++ = '"';
        *out++ = ':';
        m_size = out - m_out.data();
    }

    void string(QStringView text)
    {
        const qsizetype n = text.size();
        const char16_t* in = text.utf16();
        // Most texts need no escaping and hold no surrogate: one scan tells, and Qt's
        // vectorised UTF-8 encoder then does the rest.
        const bool special = needsCarefulEncoding(in, n);
        if (!special) {
            char* out = room(2 + n * 3);
            *out++ = '"';
            out = m_encoder.appendToBuffer(out, text);
            *out++ = '"';
            m_size = out - m_out.data();
            return;
        }
        char* out = room(2 + n * 6); // worst case: every unit written as \u00XX
        *out++ = '"';
        const char16_t* const end = in + n;
        while (in < end) {
            const char16_t c = *in++;
            if (c < 0x80) {
                if (c >= 0x20 && c != u'"' && c != u'\\') {
                    *out++ = char(c);
                    continue;
                }
                out = escape(out, c);
            } else if (c < 0x800) {
                *out++ = char(0xC0 | (c >> 6));
                *out++ = char(0x80 | (c & 0x3F));
            } else if (QChar::isHighSurrogate(c) && in < end && QChar::isLowSurrogate(*in)) {
                const char32_t u = QChar::surrogateToUcs4(c, *in++);
                *out++ = char(0xF0 | (u >> 18));
                *out++ = char(0x80 | ((u >> 12) & 0x3F));
                *out++ = char(0x80 | ((u >> 6) & 0x3F));
                *out++ = char(0x80 | (u & 0x3F));
            } else {
                // A lone surrogate cannot be UTF-8: write the replacement character.
                const char16_t w = QChar::isSurrogate(c) ? char16_t(0xFFFD) : c;
                *out++ = char(0xE0 | (w >> 12));
                *out++ = char(0x80 | ((w >> 6) & 0x3F));
                *out++ = char(0x80 | (w & 0x3F));
            }
        }
        *out++ = '"';
        m_size = out - m_out.data();
    }

    bool number(double value)
    {
        if (!std::isfinite(value))
            return false;
        char buffer[32];
        const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
        append(buffer, result.ptr - buffer);
        return true;
    }

    void integer(qint64 value)
    {
        char buffer[24];
        const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
        append(buffer, result.ptr - buffer);
    }

    void uuid(const QUuid& id)
    {
        static constexpr char hex[] = "0123456789ABCDEF";
        char* p = room(38);
        *p++ = '"';
        auto put = [&p](quint64 v, int digits) {
            for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
                *p++ = hex[(v >> shift) & 0xF];
        };
        put(id.data1, 8);
        *p++ = '-';
        put(id.data2, 4);
        *p++ = '-';
        put(id.data3, 4);
        *p++ = '-';
        put((quint64(id.data4[0]) << 8) | id.data4[1], 4);
        *p++ = '-';
        for (int i = 2; i < 8; ++i)
            put(id.data4[i], 2);
        *p++ = '"';
        m_size = p - m_out.data();
    }

    QByteArray take()
    {
        m_out.resize(m_size);
        return std::move(m_out);
    }

private:
    // Makes room for `extra` more bytes and returns where they start. The buffer is grown
    // geometrically and never zero-filled: only what is written counts.
    char* room(qsizetype extra)
    {
        const qsizetype needed = m_size + extra;
        if (needed > m_out.size()) {
            if (needed > m_out.capacity())
                m_out.reserve(std::max(needed, m_out.capacity() * 2));
            m_out.resize(m_out.capacity());
        }
        return m_out.data() + m_size;
    }

    void append(const char* data, qsizetype n)
    {
        std::memcpy(room(n), data, size_t(n));
        m_size += n;
    }

    static char* escape(char* out, char16_t c)
    {
        *out++ = '\\';
        switch (c) {
        case u'"':
            *out++ = '"';
            return out;
        case u'\\':
            *out++ = '\\';
            return out;
        case u'\n':
            *out++ = 'n';
            return out;
        case u'\r':
            *out++ = 'r';
            return out;
        case u'\t':
            *out++ = 't';
            return out;
        case u'\b':
            *out++ = 'b';
            return out;
        case u'\f':
            *out++ = 'f';
            return out;
        default: {
            static constexpr char hex[] = "0123456789abcdef";
            *out++ = 'u';
            *out++ = '0';
            *out++ = '0';
            *out++ = hex[(c >> 4) & 0xF];
            *out++ = hex[c & 0xF];
            return out;
        }
        }
    }

    QByteArray m_out;
    qsizetype m_size = 0;
    QStringEncoder m_encoder{QStringEncoder::Utf8, QStringEncoder::Flag::Stateless};
};

void writeOptionalString(Writer& w, std::string_view name, const std::optional<QString>& value)
{
    if (!value)
        return;
    w.raw(",");
    w.key(name);
    w.string(*value);
}

bool writeUsage(Writer& w, const ConversationUsage& usage)
{
    w.raw("{");
    w.key("inputTokens");
    w.integer(usage.inputTokens);
    w.raw(",");
    w.key("outputTokens");
    w.integer(usage.outputTokens);
    if (usage.estimatedUSD) {
        w.raw(",");
        w.key("estimatedUSD");
        if (!w.number(*usage.estimatedUSD))
            return false;
    }
    w.raw(",");
    w.key("pendingResponses");
    w.integer(usage.pendingResponses);
    w.raw(",");
    w.key("model");
    w.string(usage.model);
    w.raw("}");
    return true;
}

void writeMessage(Writer& w, const CallMessage& m)
{
    w.raw(",");
    w.key("message");
    w.raw("{");
    w.key("identity");
    w.string(m.identity);
    w.raw(",");
    w.key("address");
    w.string(m.address);
    w.raw(",");
    w.key("problem");
    w.string(m.problem);
    w.raw(",");
    w.key("since");
    w.string(m.since);
    w.raw(",");
    w.key("urgency");
    w.string(m.urgency);
    w.raw(",");
    w.key("callback");
    w.string(m.callback);
    w.raw(",");
    w.key("summary");
    w.string(m.summary);
    w.raw("}");
}

qsizetype estimateSize(const QList<CallRecord>& records)
{
    qsizetype size = 2;
    for (const CallRecord& r : records) {
        size += 200 + r.caller.size() + r.kind.size() + r.note.size();
        if (r.message) {
            size += 120 + r.message->identity.size() + r.message->address.size() +
                    r.message->problem.size() + r.message->since.size() +
                    r.message->summary.size() + r.message->callback.size();
        }
        for (const TranscriptLine& line : r.transcript)
            size += 70 + line.speaker.size() + line.text.size();
    }
    return size + size / 8; // accented letters take two bytes
}

std::optional<QUuid> readUuid(JsonReader& in, const QString& key)
{
    const QString text = in.string(key);
    if (in.failed())
        return std::nullopt;
    const auto id = parseUuid(text);
    if (!id)
        in.fail(QStringLiteral("« %1 » n’est pas un identifiant valide").arg(key));
    return id;
}

Result<CallRecord> decodeRecord(const QJsonValue& value, qsizetype index)
{
    const QString where = QStringLiteral("enregistrement %1").arg(index + 1);
    if (!value.isObject())
        return AppError(where + QStringLiteral(" : ce n’est pas un objet"));
    JsonReader in(value.toObject(), where);
    CallRecord record;
    record.id = readUuid(in, QStringLiteral("id")).value_or(QUuid());
    record.date.secondsSinceReference = in.number(QStringLiteral("date"));
    record.caller = in.string(QStringLiteral("caller"));
    record.kind = in.string(QStringLiteral("kind"));
    const QJsonArray lines = in.array(QStringLiteral("transcript"));
    record.note = in.string(QStringLiteral("note"));
    record.dossier = in.optionalString(QStringLiteral("dossier"));
    record.recordingFile = in.optionalString(QStringLiteral("recordingFile"));
    record.recordingError = in.optionalString(QStringLiteral("recordingError"));
    const auto usage = in.optionalObject(QStringLiteral("usage"));
    record.followUpStatus = in.optionalString(QStringLiteral("followUpStatus"));
    const auto message = in.optionalObject(QStringLiteral("message"));
    const auto progress = in.optionalString(QStringLiteral("progress"));
    if (record.recordingFile && !CallRecord::isRecordingName(*record.recordingFile)) {
        in.fail(QStringLiteral("« recordingFile » doit être un nom d’enregistrement de Vemira "
                               "(Appel-<identifiant>.wav), sans dossier"));
    }
    if (progress == QStringLiteral("inProgress"))
        record.progress = CallProgress::InProgress;
    else if (progress == QStringLiteral("interrupted"))
        record.progress = CallProgress::Interrupted;
    else if (progress)
        in.fail(QStringLiteral("« progress » vaut « %1 », ni inProgress ni interrupted")
                    .arg(*progress));
    if (in.failed())
        return in.error();
    if (message) {
        auto decoded = CallMessage::fromJson(*message);
        if (!decoded)
            return AppError(where + QStringLiteral(", ") + decoded.error().message());
        record.message = std::move(decoded).value();
    }
    if (usage) {
        auto decoded = ConversationUsage::fromJson(*usage);
        if (!decoded)
            return AppError(where + QStringLiteral(", ") + decoded.error().message());
        record.usage = std::move(decoded).value();
    }
    record.transcript.reserve(lines.size());
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QJsonValue lineValue = lines.at(i);
        const QString lineWhere = where + QStringLiteral(", ligne %1").arg(i + 1);
        if (!lineValue.isObject())
            return AppError(lineWhere + QStringLiteral(" : ce n’est pas un objet"));
        JsonReader lineIn(lineValue.toObject(), lineWhere);
        TranscriptLine line;
        line.id = readUuid(lineIn, QStringLiteral("id")).value_or(QUuid());
        line.speaker = lineIn.string(QStringLiteral("speaker"));
        line.text = lineIn.string(QStringLiteral("text"));
        if (lineIn.failed())
            return lineIn.error();
        record.transcript.append(std::move(line));
    }
    return record;
}

} // namespace

namespace {

// Writes one record object; false when a number cannot be written.
std::optional<AppError> writeRecord(Writer& w, const CallRecord& r)
{
    w.raw("{");
    w.key("id");
    w.uuid(r.id);
    w.raw(",");
    w.key("date");
    if (!w.number(r.date.secondsSinceReference))
        return AppError(QStringLiteral("une date n’est pas représentable."));
    w.raw(",");
    w.key("caller");
    w.string(r.caller);
    w.raw(",");
    w.key("kind");
    w.string(r.kind);
    w.raw(",");
    w.key("transcript");
    w.raw("[");
    bool firstLine = true;
    for (const TranscriptLine& line : r.transcript) {
        if (!firstLine)
            w.raw(",");
        firstLine = false;
        w.raw("{");
        w.key("id");
        w.uuid(line.id);
        w.raw(",");
        w.key("speaker");
        w.string(line.speaker);
        w.raw(",");
        w.key("text");
        w.string(line.text);
        w.raw("}");
    }
    w.raw("],");
    w.key("note");
    w.string(r.note);
    writeOptionalString(w, "dossier", r.dossier);
    writeOptionalString(w, "recordingFile", r.recordingFile);
    writeOptionalString(w, "recordingError", r.recordingError);
    if (r.usage) {
        w.raw(",");
        w.key("usage");
        if (!writeUsage(w, *r.usage))
            return AppError(QStringLiteral("un montant estimé n’est pas représentable."));
    }
    writeOptionalString(w, "followUpStatus", r.followUpStatus);
    if (r.message)
        writeMessage(w, *r.message);
    if (r.progress != CallProgress::Ended) {
        w.raw(",");
        w.key("progress");
        w.raw(r.progress == CallProgress::InProgress ? R"("inProgress")" : R"("interrupted")");
    }
    w.raw("}");
    return std::nullopt;
}

} // namespace

Result<QByteArray> encodeRecord(const CallRecord& record)
{
    Writer w(estimateSize({record}));
    if (auto failed = writeRecord(w, record))
        return *failed;
    return w.take();
}

Result<QByteArray> encodeHistory(const QList<CallRecord>& records)
{
    Writer w(estimateSize(records));
    w.raw("[");
    bool first = true;
    for (const CallRecord& r : records) {
        if (!first)
            w.raw(",");
        first = false;
        if (auto failed = writeRecord(w, r))
            return *failed;
    }
    w.raw("]");
    return w.take();
}

QByteArray joinHistory(const QList<QByteArray>& encodedRecords)
{
    qsizetype size = 2 + encodedRecords.size();
    for (const QByteArray& record : encodedRecords)
        size += record.size();
    QByteArray out;
    out.reserve(size);
    out += '[';
    bool first = true;
    for (const QByteArray& record : encodedRecords) {
        if (!first)
            out += ',';
        first = false;
        out += record;
    }
    out += ']';
    return out;
}

Result<QList<CallRecord>> decodeHistory(const QByteArray& bytes)
{
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        return AppError(QStringLiteral("JSON invalide à l’octet %1").arg(parseError.offset));
    }
    if (!document.isArray())
        return AppError(QStringLiteral("le fichier ne contient pas une liste d’appels"));
    const QJsonArray array = document.array();
    QList<CallRecord> records;
    records.reserve(array.size());
    for (qsizetype i = 0; i < array.size(); ++i) {
        auto record = decodeRecord(array.at(i), i);
        if (!record)
            return record.error();
        records.append(std::move(record).value());
    }
    return records;
}

} // namespace vemira
