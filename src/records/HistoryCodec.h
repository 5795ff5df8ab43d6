#pragma once

#include "core/AppError.h"
#include "records/CallRecord.h"

#include <QByteArray>
#include <QList>

namespace vemira {

// The JSON form of history.json: one compact UTF-8 array of records, newest first.
// Encoding fails only on a value JSON cannot hold (a non-finite number).
Result<QByteArray> encodeHistory(const QList<CallRecord>& records);
// The same, one record at a time: joinHistory of the encodeRecord results gives the bytes of
// encodeHistory, so a store can keep unchanged records encoded between saves.
Result<QByteArray> encodeRecord(const CallRecord& record);
QByteArray joinHistory(const QList<QByteArray>& encodedRecords);

// Strict: any record or line with a missing required key or a wrong type makes the whole
// document unreadable. The error says what was wrong (for logs and the command line).
Result<QList<CallRecord>> decodeHistory(const QByteArray& bytes);

} // namespace vemira
