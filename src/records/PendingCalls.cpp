#include "records/PendingCalls.h"

#include <algorithm>

namespace vemira {

namespace {

int rank(const CallRecord& record)
{
    return record.message ? record.message->urgencyRank() : CallMessage().urgencyRank();
}

} // namespace

QList<const CallRecord*> pendingCalls(const QList<CallRecord>& records)
{
    const QString pending = CallRecord().statusLabel();
    QList<const CallRecord*> list;
    for (const CallRecord& record : records) {
        if (record.statusLabel() == pending)
            list.append(&record);
    }
    std::stable_sort(list.begin(), list.end(), [](const CallRecord* a, const CallRecord* b) {
        if (rank(*a) != rank(*b))
            return rank(*a) < rank(*b);
        return a->date > b->date;
    });
    return list;
}

QString pendingCaller(const CallRecord& record)
{
    if (record.message && !record.message->identity.isEmpty())
        return record.message->identity;
    return record.caller;
}

QString pendingLine(const CallRecord& record, const QLocale& locale)
{
    QString line;
    if (record.message && !record.message->urgency.isEmpty())
        line = record.message->urgency + QStringLiteral(" · ");
    line += locale.toString(record.date.toDateTime(), QLocale::ShortFormat) +
            QStringLiteral(" · ") + pendingCaller(record) + QStringLiteral(" — ");
    const QString summary = record.message ? record.message->summary : QString();
    return line + (summary.isEmpty() ? QStringLiteral("Sans résumé") : summary);
}

} // namespace vemira
