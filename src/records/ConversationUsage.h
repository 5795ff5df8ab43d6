#pragma once

#include "core/AppError.h"

#include <QJsonObject>
#include <QString>
#include <optional>

namespace vemira {

// Token counts and the cautious cost estimate of one conversation, as pushed by the usage
// meter and kept inside the call record.
struct ConversationUsage {
    qint64 inputTokens = 0;
    qint64 outputTokens = 0;
    std::optional<double> estimatedUSD; // absent when the model has no configured price
    qint64 pendingResponses = 0;
    QString model;

    // The one-line text of the usage counter.
    QString label() const;

    // JSON form: "estimatedUSD" only when present; the four others are required on reading.
    QJsonObject toJson() const;
    static Result<ConversationUsage> fromJson(const QJsonObject& object);

    bool operator==(const ConversationUsage&) const = default;
};

} // namespace vemira
