#include "app/RecordingRecovery.h"

#include "audio/CallAudioRecorder.h"
#include "records/RecordsStore.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

namespace vemira {

namespace {

// "Appel-<UUID>.wav" → the id, when the name is one of ours.
std::optional<QUuid> callOf(const QString& wavName)
{
    static const QString prefix = QStringLiteral("Appel-");
    static const QString suffix = QStringLiteral(".wav");
    if (!wavName.startsWith(prefix) || !wavName.endsWith(suffix))
        return std::nullopt;
    return parseUuid(
        QStringView(wavName).mid(prefix.size(), wavName.size() - prefix.size() - suffix.size()));
}

} // namespace

QStringList recoverRecordings(RecordsStore& store)
{
    QStringList lines;
    bool changed = false;
    // Only one receptionist runs on a folder: a record still in progress at its start was
    // left by one that stopped without ending the call. Its last state is in the call's own
    // file (or, should the history have missed the answer, only there).
    if (const auto last = store.readCallInProgress()) {
        const CallRecord* known = store.find(last->id);
        if (!known && last->progress == CallProgress::InProgress) {
            store.insertFront(*last);
        } else if (known && known->progress == CallProgress::InProgress) {
            store.modify(last->id, [&last](CallRecord& record) {
                record.transcript = last->transcript;
                record.usage = last->usage;
                record.message = last->message;
                record.recordingError = last->recordingError;
            });
        }
    }
    QList<QUuid> interrupted;
    for (const CallRecord& record : store.records()) {
        if (record.progress == CallProgress::InProgress)
            interrupted.append(record.id);
    }
    for (const QUuid& id : std::as_const(interrupted)) {
        store.modify(id, [](CallRecord& record) { record.progress = CallProgress::Interrupted; });
        const CallRecord* record = store.find(id);
        changed = true;
        lines.append(QStringLiteral("Appel interrompu par un arrêt inattendu de Vemira, conservé : "
                                    "%1 · %2 · %3 ligne(s) de transcription")
                         .arg(record->reference(), record->caller)
                         .arg(record->transcript.size()));
    }

    const QDir folder(store.folder().recordingsFolder());
    QSet<QString> urls;
    for (const QString& track : folder.entryList(
             {QStringLiteral("*.wav.input.caf"), QStringLiteral("*.wav.voice.caf")}, QDir::Files))
        urls.insert(folder.filePath(track.left(track.lastIndexOf(u'.', track.size() - 5))));
    for (const QString& url : std::as_const(urls)) {
        const QString name = QFileInfo(url).fileName();
        const auto id = callOf(name);
        auto mixed = CallAudioRecorder::mixTracks(url, CallAudioRecorder::temporaryFor(url));
        if (!mixed) {
            lines.append(QStringLiteral("Pistes d’enregistrement de « ") + name +
                         QStringLiteral(" » non récupérées : ") + mixed.error().message());
            continue;
        }
        if (id && store.modify(*id, [&name](CallRecord& record) {
                record.recordingFile = name;
                record.recordingError = QStringLiteral(
                    "Enregistrement récupéré au démarrage après un arrêt inattendu de Vemira.");
            })) {
            changed = true;
            lines.append(QStringLiteral("Enregistrement de l’appel ") + uuidText(*id).left(8) +
                         QStringLiteral(" récupéré après un arrêt inattendu."));
        } else {
            lines.append(QStringLiteral("Enregistrement récupéré sans fiche d’appel, conservé : ") +
                         QDir::toNativeSeparators(mixed.value()));
        }
    }
    if (changed) {
        if (Status failed = store.saveHistory()) {
            lines.append(failed->message());
            return lines; // the call's own file stays for the next start
        }
    }
    store.removeCallInProgress();
    return lines;
}

} // namespace vemira
