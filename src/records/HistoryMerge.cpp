#include "records/HistoryMerge.h"

#include <QSet>

namespace vemira {

namespace {

template <typename T> void takeTheirs(T& merged, const T& base, const T& theirs)
{
    // `merged` starts as ours: only a field we left untouched may follow the file.
    if (merged == base)
        merged = theirs;
}

} // namespace

CallRecord mergeRecord(const CallRecord& base, const CallRecord& mine, const CallRecord& theirs)
{
    CallRecord merged = mine;
    takeTheirs(merged.date, base.date, theirs.date);
    takeTheirs(merged.caller, base.caller, theirs.caller);
    takeTheirs(merged.kind, base.kind, theirs.kind);
    takeTheirs(merged.transcript, base.transcript, theirs.transcript);
    takeTheirs(merged.note, base.note, theirs.note);
    takeTheirs(merged.dossier, base.dossier, theirs.dossier);
    takeTheirs(merged.recordingFile, base.recordingFile, theirs.recordingFile);
    takeTheirs(merged.recordingError, base.recordingError, theirs.recordingError);
    takeTheirs(merged.usage, base.usage, theirs.usage);
    takeTheirs(merged.followUpStatus, base.followUpStatus, theirs.followUpStatus);
    takeTheirs(merged.message, base.message, theirs.message);
    takeTheirs(merged.progress, base.progress, theirs.progress);
    return merged;
}

QHash<QUuid, CallRecord> indexById(const QList<CallRecord>& records)
{
    QHash<QUuid, CallRecord> index;
    index.reserve(records.size());
    // Backwards, so the first record of an id is the one left in the index.
    for (auto it = records.crbegin(); it != records.crend(); ++it)
        index.insert(it->id, *it);
    return index;
}

QList<CallRecord> mergeHistory(const QHash<QUuid, CallRecord>& base, const QList<CallRecord>& mine,
                               const QList<CallRecord>& theirs, const QSet<QUuid>& deleted,
                               QList<QUuid>* keptMissing)
{
    const QHash<QUuid, CallRecord> ours = indexById(mine);
    QSet<QUuid> inTheirs;
    inTheirs.reserve(theirs.size());
    for (const CallRecord& record : theirs)
        inTheirs.insert(record.id);

    QList<CallRecord> merged;
    merged.reserve(qMax(mine.size(), theirs.size()));
    QSet<QUuid> placed;
    // Ours that the file never had: created here since the last read.
    for (const CallRecord& record : mine) {
        if (!base.contains(record.id) && !inTheirs.contains(record.id) &&
            !placed.contains(record.id)) {
            merged.append(record);
            placed.insert(record.id);
        }
    }
    for (const CallRecord& record : theirs) {
        if (placed.contains(record.id))
            continue;
        const auto known = base.constFind(record.id);
        const auto own = ours.constFind(record.id);
        if (known == base.constEnd()) {
            // New in the file (or created on both sides with the same id: keep ours).
            merged.append(own == ours.constEnd() ? record : *own);
        } else if (own == ours.constEnd()) {
            continue; // deleted here
        } else {
            merged.append(mergeRecord(*known, *own, record));
        }
        placed.insert(record.id);
    }
    for (const CallRecord& record : mine) {
        if (placed.contains(record.id) || !base.contains(record.id) || deleted.contains(record.id))
            continue;
        // Newest first: before the first record older than it.
        qsizetype at = 0;
        while (at < merged.size() && !(merged[at].date < record.date))
            ++at;
        merged.insert(at, record);
        placed.insert(record.id);
        if (keptMissing)
            keptMissing->append(record.id);
    }
    return merged;
}

} // namespace vemira
