#pragma once

#include "records/CallRecord.h"

#include <QHash>
#include <QList>
#include <QSet>
#include <QUuid>

namespace vemira {

// Three-way merge of the history when another process (the `vemira` tool, a second window
// closed since) rewrote the file after we read it.
//
// `base` is the list as we last read or wrote it, `mine` the list in memory, `theirs` the file
// as it is now. Field by field, a change made on one side only is taken; when both sides
// changed the same field, ours wins (the running application holds the call in progress). A
// record deleted here stays deleted. A record the file no longer holds is gone only when its
// id is in `deleted` (the ids a Vemira writer deleted); otherwise the file was replaced from
// outside (a backup restored, an editor's save) and the record is kept, its id added to
// `keptMissing`. Records created on our side come first, then the file's records in the
// file's order, the kept ones placed among them by date.
QList<CallRecord> mergeHistory(const QHash<QUuid, CallRecord>& base, const QList<CallRecord>& mine,
                               const QList<CallRecord>& theirs, const QSet<QUuid>& deleted,
                               QList<QUuid>* keptMissing = nullptr);

// One record: each field changed from `base` in `mine` is taken from `mine`, the others from
// `theirs`.
CallRecord mergeRecord(const CallRecord& base, const CallRecord& mine, const CallRecord& theirs);

// Index of a list by record id (the first record of an id wins, as for every edit).
QHash<QUuid, CallRecord> indexById(const QList<CallRecord>& records);

} // namespace vemira
