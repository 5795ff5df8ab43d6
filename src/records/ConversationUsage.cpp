#include "records/ConversationUsage.h"

#include "records/JsonRead.h"

namespace vemira {

QString ConversationUsage::label() const
{
    QString text =
        QString::number(inputTokens + outputTokens) + QStringLiteral(" tokens reçus d’OpenAI");
    if (estimatedUSD) {
        text += QString::asprintf(" · budget prudent : %.2f $ US", *estimatedUSD);
        if (pendingResponses >= 1)
            text += QStringLiteral(" · provision en cours incluse");
    } else {
        text += QStringLiteral(" · tarif non configuré pour ce modèle");
    }
    return text;
}

QJsonObject ConversationUsage::toJson() const
{
    QJsonObject object;
    object.insert(QStringLiteral("inputTokens"), inputTokens);
    object.insert(QStringLiteral("outputTokens"), outputTokens);
    if (estimatedUSD)
        object.insert(QStringLiteral("estimatedUSD"), *estimatedUSD);
    object.insert(QStringLiteral("pendingResponses"), pendingResponses);
    object.insert(QStringLiteral("model"), model);
    return object;
}

Result<ConversationUsage> ConversationUsage::fromJson(const QJsonObject& object)
{
    JsonReader in(object, QStringLiteral("usage"));
    ConversationUsage usage;
    usage.inputTokens = in.integer(QStringLiteral("inputTokens"));
    usage.outputTokens = in.integer(QStringLiteral("outputTokens"));
    usage.estimatedUSD = in.optionalNumber(QStringLiteral("estimatedUSD"));
    usage.pendingResponses = in.integer(QStringLiteral("pendingResponses"));
    usage.model = in.string(QStringLiteral("model"));
    if (in.failed())
        return in.error();
    return usage;
}

} // namespace vemira
