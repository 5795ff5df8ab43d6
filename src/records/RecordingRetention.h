#pragma once

#include <QDateTime>
#include <QStringList>

namespace vemira {

class RecordsStore;

// "Conserver les enregistrements": how long call recordings are kept. Records and
// transcripts stay; only the audio files go.
namespace RecordingRetention {

QList<int> choices();    // 0 (never deleted), 30, 90, 365 days
QString label(int days); // "jamais supprimés", "30 jours", …
QString title();         // "Conserver les enregistrements"

// Deletes the recordings of calls older than `days` before `now` (0: nothing), and files
// of the recordings folder that no record names and that were last written before then.
// Records keep a line saying why their recording is gone. Returns the file names removed.
QStringList purge(RecordsStore& store, int days, const QDateTime& now);

} // namespace RecordingRetention

} // namespace vemira
