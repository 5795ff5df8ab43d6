#pragma once

#include "records/ConversationUsage.h"

#include <QJsonObject>
#include <QSet>
#include <QString>
#include <optional>

namespace vemira {

// Running usage of one realtime session: token counts confirmed at the end of each response,
// responses still reserved, and seconds of caller audio sent. One meter per session, owned by
// RealtimeClient. Main thread only.
class ConversationUsageMeter {
public:
    // A count above this, in either direction, is treated as absurd and the response stays
    // reserved: the estimate must never undercount.
    static constexpr qint64 maxTokensPerResponse = 1'000'000;

    explicit ConversationUsageMeter(QString model = QString());

    const QString& model() const { return m_model; }

    // "response.created": the response is reserved unless its usage was already counted.
    void responseCreated(const QString& id);
    // "response.done": counts the usage once per id when it holds two plausible integer counts
    // ("input_tokens", "output_tokens"); otherwise the response stays (or becomes) reserved.
    void completed(const QString& id, const std::optional<QJsonObject>& usage);
    void addInputSeconds(double seconds) { m_inputSeconds += seconds; }

    ConversationUsage snapshot() const;

    // Models of the model table whose prices we know (exact, case-sensitive).
    static bool isPriced(const QString& model);

    qint64 inputTokens() const { return m_input; }
    qint64 outputTokens() const { return m_output; }
    double inputSeconds() const { return m_inputSeconds; }
    qsizetype pendingCount() const { return m_pending.size(); }
    bool wasCounted(const QString& id) const { return m_seen.contains(id); }

private:
    QString m_model;
    QSet<QString> m_seen;
    QSet<QString> m_pending;
    qint64 m_input = 0;
    qint64 m_output = 0;
    double m_inputSeconds = 0;
};

} // namespace vemira
