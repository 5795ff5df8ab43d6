#include "records/RecordingRetention.h"

#include "records/RecordsStore.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

namespace vemira::RecordingRetention {

QList<int> choices()
{
    return {0, 30, 90, 365};
}

QString label(int days)
{
    return days <= 0 ? QStringLiteral("jamais supprimés") : QStringLiteral("%1 jours").arg(days);
}

QString title()
{
    return QStringLiteral("Conserver les enregistrements");
}

QStringList purge(RecordsStore& store, int days, const QDateTime& now)
{
    QStringList removed;
    if (days <= 0)
        return removed;
    const QDateTime limit = now.addDays(-days);
    const Timestamp cutoff = Timestamp::fromDateTime(limit);
    const QString gone = QStringLiteral("Enregistrement supprimé au bout de %1 jours, comme "
                                        "prévu par la durée de conservation.")
                             .arg(days);
    QList<QUuid> expired;
    QSet<QString> named;
    for (const CallRecord& record : store.records()) {
        // A call under way, or one whose recording is still being made, owns its file by id.
        if (record.progress == CallProgress::InProgress || !(record.date < cutoff))
            named.insert(QStringLiteral("Appel-") + uuidText(record.id) + QStringLiteral(".wav"));
        if (!record.recordingFile || record.progress == CallProgress::InProgress)
            continue;
        if (record.date < cutoff)
            expired.append(record.id);
        else
            named.insert(*record.recordingFile);
    }
    for (const QUuid& id : std::as_const(expired)) {
        const CallRecord* record = store.find(id);
        if (const auto path = store.recordingPath(*record)) {
            if (!QFile::remove(*path))
                continue; // still there: the record keeps naming it
            removed.append(QFileInfo(*path).fileName());
        }
        store.modify(id, [&gone](CallRecord& r) {
            r.recordingFile.reset();
            r.recordingError = gone;
        });
    }
    // Audio no record names (kept after a crash): its own age decides. Not while the history
    // is unreadable: its records may name any of these files.
    if (!store.historyReadFailed()) {
        const QDir folder(store.folder().recordingsFolder());
        for (const QFileInfo& file :
             folder.entryInfoList({QStringLiteral("*.wav")}, QDir::Files, QDir::Name)) {
            if (!named.contains(file.fileName()) && file.lastModified() < limit &&
                QFile::remove(file.filePath()))
                removed.append(file.fileName());
        }
    }
    if (!expired.isEmpty())
        (void)store.saveHistory();
    return removed;
}

} // namespace vemira::RecordingRetention
