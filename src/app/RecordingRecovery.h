#pragma once

#include <QStringList>

namespace vemira {

class RecordsStore;

// At start, after a crash: a record left in progress becomes an interrupted call, and the
// track files left in the recordings folder are mixed into the call's recording, which the
// record then names. With no record of that call, the recording is made all the same and
// kept. Returns the session-log lines saying what was done.
QStringList recoverRecordings(RecordsStore& store);

} // namespace vemira
