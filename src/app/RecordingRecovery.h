#pragma once

#include <QStringList>

namespace vemira {

class RecordsStore;

// At start: the track files a crash left in the recordings folder are mixed into the call's
// recording and the record names it. With no record of that call, the recording is made all
// the same and kept. Returns the session-log lines saying what was done.
QStringList recoverRecordings(RecordsStore& store);

} // namespace vemira
