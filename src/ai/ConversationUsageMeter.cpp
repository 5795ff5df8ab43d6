#include "ai/ConversationUsageMeter.h"

#include "records/ModelCatalogue.h"

#include <QJsonValue>
#include <QtGlobal>
#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace vemira {

namespace {

// A token count as the provider writes it: a JSON integer from 0 to the bound. A fractional,
// negative, boolean or textual count is not usage we can trust.
std::optional<qint64> plausibleCount(const QJsonValue& value)
{
    if (!value.isDouble())
        return std::nullopt;
    const double number = value.toDouble();
    if (!(number >= 0 && number <= double(ConversationUsageMeter::maxTokensPerResponse)) ||
        std::floor(number) != number)
        return std::nullopt;
    return static_cast<qint64>(number);
}

// Counts grow for the whole call; an overflow would mean corrupted state, not a big bill.
qint64 checkedAdd(qint64 a, qint64 b)
{
    qint64 sum = 0;
    if (__builtin_add_overflow(a, b, &sum))
        qFatal("usage counter overflow");
    return sum;
}

} // namespace

ConversationUsageMeter::ConversationUsageMeter(QString model) : m_model(std::move(model)) {}

void ConversationUsageMeter::responseCreated(const QString& id)
{
    if (!m_seen.contains(id))
        m_pending.insert(id);
}

void ConversationUsageMeter::completed(const QString& id, const std::optional<QJsonObject>& usage)
{
    if (m_seen.contains(id))
        return;
    std::optional<qint64> input;
    std::optional<qint64> output;
    if (usage) {
        input = plausibleCount(usage->value(QLatin1String("input_tokens")));
        output = plausibleCount(usage->value(QLatin1String("output_tokens")));
    }
    if (!input || !output) {
        // Keeps its full reservation until the end of the conversation.
        m_pending.insert(id);
        return;
    }
    m_seen.insert(id);
    m_pending.remove(id);
    m_input = checkedAdd(m_input, *input);
    m_output = checkedAdd(m_output, *output);
}

bool ConversationUsageMeter::isPriced(const QString& model)
{
    const RealtimeModelInfo* info = ModelCatalogue::find(model);
    return info && info->priced();
}

ConversationUsage ConversationUsageMeter::snapshot() const
{
    ConversationUsage usage;
    usage.inputTokens = m_input;
    usage.outputTokens = m_output;
    usage.pendingResponses = m_pending.size();
    usage.model = m_model;
    const RealtimeModelInfo* info = ModelCatalogue::find(m_model);
    if (info && info->priced()) {
        // A pending response may still cost a full context plus a maximal answer. Every token
        // is priced as audio, the dearer kind, with no cache discount.
        const double in = *info->audio.input;
        const double out = *info->audio.output;
        const double perPending = double(*info->context) * in + double(*info->maxOutput) * out;
        const double reservation = double(usage.pendingResponses) * perPending / 1'000'000;
        const double tokens = double(m_input) * in / 1'000'000 + double(m_output) * out / 1'000'000;
        const double transcription =
            m_inputSeconds / 60 * ModelCatalogue::transcriptionProvisionPerMinute();
        // 25 % margin, rounded up to the cent. A product of decimal prices can land a hair
        // above a whole cent in binary (6.144 × 125 = 768.0000000000001): that is not a cent.
        const double cents = (reservation + tokens + transcription) * 125;
        usage.estimatedUSD = std::ceil(std::max(0.0, cents - 1e-6)) / 100;
    }
    return usage;
}

} // namespace vemira
