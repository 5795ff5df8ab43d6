#include "records/RecordsStore.h"

#include "records/DesktopServices.h"
#include "records/HistoryCodec.h"
#include "records/PrivateFiles.h"
#include "records/TranscriptDocument.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QSet>

namespace vemira {

namespace {

QString unreadableAtStart()
{
    return QStringLiteral("Historique illisible. Le fichier existant n’a pas été modifié.");
}

QString refusedWhileUnreadable()
{
    return QStringLiteral("L’historique existant est illisible. Exportez les nouvelles "
                          "conversations avant de quitter ; le fichier existant est conservé.");
}

AppError cannotSave(const AppError& cause)
{
    return AppError(QStringLiteral("Impossible de sauvegarder l’historique : ") + cause.message());
}

} // namespace

RecordsStore::RecordsStore(DataFolder folder, QObject* parent)
    : QObject(parent), m_folder(std::move(folder))
{}

Status RecordsStore::load()
{
    const QString path = m_folder.historyFile();
    const QFileInfo info(path);
    if (!info.exists() && !info.isSymLink()) {
        m_records.clear();
        Q_EMIT recordsChanged();
        return std::nullopt;
    }
    auto bytes = PrivateFiles::read(path);
    auto decoded = bytes ? decodeHistory(bytes.value()) : Result<QList<CallRecord>>(bytes.error());
    if (!decoded) {
        m_records.clear();
        m_historyReadFailed = true;
        Q_EMIT recordsChanged();
        return AppError(unreadableAtStart());
    }
    m_records = std::move(decoded).value();
    Q_EMIT recordsChanged();
    return std::nullopt;
}

const CallRecord* RecordsStore::find(const QUuid& id) const
{
    for (const CallRecord& record : m_records) {
        if (record.id == id)
            return &record;
    }
    return nullptr;
}

Status RecordsStore::saveHistory()
{
    if (m_historyReadFailed)
        return AppError(refusedWhileUnreadable());
    if (Status failed = PrivateFiles::ensureFolder(m_folder.path()))
        return cannotSave(*failed);
    auto bytes = encodeRecords();
    if (!bytes)
        return cannotSave(bytes.error());
    if (Status failed = PrivateFiles::write(m_folder.historyFile(), bytes.value()))
        return cannotSave(*failed);
    if (Status failed = writeTranscriptFiles()) {
        return AppError(QStringLiteral("Historique enregistré, mais un fichier de transcription "
                                       "n’a pas pu être mis à jour : ") +
                        failed->message());
    }
    return std::nullopt;
}

Result<QByteArray> RecordsStore::encodeRecords()
{
    QList<QByteArray> parts;
    parts.reserve(m_records.size());
    for (const CallRecord& record : std::as_const(m_records)) {
        auto known = m_encoded.find(record.id);
        if (known == m_encoded.end() || !(known->record == record)) {
            auto json = encodeRecord(record);
            if (!json)
                return json.error();
            known = m_encoded.insert(record.id, EncodedRecord{record, std::move(json).value()});
        }
        parts.append(known->json);
    }
    return joinHistory(parts);
}

Status RecordsStore::writeTranscriptFiles()
{
    // One listing instead of a check per file: a file removed behind our back is written again.
    QSet<QString> existing;
    QDirIterator listing(m_folder.transcriptsFolder(), QDir::Files | QDir::Hidden);
    while (listing.hasNext()) {
        listing.next();
        existing.insert(listing.fileName());
    }
    const QString localeName = m_locale.name();

    Status firstFailure;
    for (const CallRecord& record : std::as_const(m_records)) {
        const auto known = m_written.constFind(record.id);
        if (known != m_written.constEnd() && known->localeName == localeName &&
            known->record == record && existing.contains(transcriptFileName(record))) {
            continue;
        }
        // Go on with the other records: one unwritable file should not hold back the rest.
        auto written = writeTranscriptFile(record);
        if (!written && !firstFailure)
            firstFailure = written.error();
    }
    return firstFailure;
}

Result<QString> RecordsStore::writeTranscriptFile(const CallRecord& record)
{
    const QString folder = m_folder.transcriptsFolder();
    if (Status failed = PrivateFiles::ensureFolder(folder))
        return *failed;
    const QString path = folder + u'/' + transcriptFileName(record);
    const QByteArray bytes = transcriptDocument(record).toUtf8();

    const QFileInfo info(path);
    bool same = false;
    if (info.isFile() && info.size() == bytes.size()) {
        auto current = PrivateFiles::read(path);
        same = current && current.value() == bytes;
    }
    if (!same) {
        if (Status failed = PrivateFiles::writeAtomically(path, bytes))
            return *failed;
    }
    if (Status failed = PrivateFiles::restrict(path))
        return *failed;
    m_written.insert(record.id, WrittenTranscript{record, m_locale.name()});
    return path;
}

RecordsStore::DemoAdded RecordsStore::addDemo(const QDateTime& now)
{
    const CallRecord demo = makeDemoRecord(now);
    m_records.prepend(demo);
    Q_EMIT recordsChanged();
    return DemoAdded{demo.id, saveHistory()};
}

bool RecordsStore::modify(const QUuid& id, const std::function<void(CallRecord&)>& change)
{
    for (CallRecord& record : m_records) {
        if (record.id == id) {
            change(record);
            Q_EMIT recordsChanged();
            return true;
        }
    }
    return false;
}

void RecordsStore::insertFront(const CallRecord& record)
{
    m_records.prepend(record);
    Q_EMIT recordsChanged();
}

Status RecordsStore::updateNote(const QUuid& id, const QString& text)
{
    if (!modify(id, [&](CallRecord& r) { r.note = text; }))
        return std::nullopt;
    return saveHistory();
}

Status RecordsStore::updateDossier(const QUuid& id, const QString& name)
{
    const QString trimmed = name.trimmed();
    const bool found = modify(id, [&](CallRecord& r) {
        if (trimmed.isEmpty())
            r.dossier.reset();
        else
            r.dossier = trimmed;
    });
    if (!found)
        return std::nullopt;
    return saveHistory();
}

Status RecordsStore::updateFollowUpStatus(const QUuid& id, const QString& status)
{
    if (!modify(id, [&](CallRecord& r) { r.followUpStatus = status; }))
        return std::nullopt;
    return saveHistory();
}

QString RecordsStore::transcriptDocument(const CallRecord& record) const
{
    return vemira::transcriptDocument(record, m_locale);
}

Status RecordsStore::writeDocument(const CallRecord& record, const QString& path) const
{
    return PrivateFiles::writeAtomically(path, transcriptDocument(record).toUtf8());
}

std::optional<QString> RecordsStore::recordingPath(const CallRecord& record) const
{
    if (!record.recordingFile || record.recordingFile->isEmpty())
        return std::nullopt;
    const QString& file = *record.recordingFile;
    const QString path =
        QDir::isAbsolutePath(file) ? file : m_folder.recordingsFolder() + u'/' + file;
    if (!QFileInfo(path).isFile())
        return std::nullopt;
    return path;
}

std::optional<QString> RecordsStore::copyTranscript(const CallRecord& record,
                                                    DesktopServices& desktop)
{
    if (!desktop.copyPlainText(transcriptDocument(record)))
        return QStringLiteral("La copie n’a pas abouti. Réessayez.");
    return QStringLiteral("Transcription de l’appel ") + record.reference() +
           QStringLiteral(" copiée.");
}

std::optional<QString> RecordsStore::exportTranscript(const CallRecord& record,
                                                      DesktopServices& desktop)
{
    const auto location =
        desktop.chooseSaveLocation(exportFileName(record), DesktopServices::FileType::PlainText);
    if (!location || location->isEmpty())
        return std::nullopt;
    if (Status failed = writeDocument(record, *location))
        return failed->message();
    return std::nullopt;
}

std::optional<QString> RecordsStore::revealTranscript(const CallRecord& record,
                                                      DesktopServices& desktop)
{
    auto written = writeTranscriptFile(record);
    if (!written) {
        return QStringLiteral("Impossible de préparer la transcription : ") +
               written.error().message();
    }
    desktop.revealInFileBrowser(written.value());
    return std::nullopt;
}

std::optional<QString> RecordsStore::exportRecording(const CallRecord& record,
                                                     DesktopServices& desktop)
{
    const auto source = recordingPath(record);
    if (!source)
        return QStringLiteral("L’enregistrement audio est introuvable.");
    const auto location = desktop.chooseSaveLocation(QFileInfo(*source).fileName(),
                                                     DesktopServices::FileType::WaveAudio);
    if (!location || location->isEmpty())
        return std::nullopt;
    auto bytes = PrivateFiles::read(*source);
    Status failed =
        bytes ? PrivateFiles::writeAtomically(*location, bytes.value()) : Status(bytes.error());
    if (failed)
        return QStringLiteral("Export audio impossible : ") + failed->message();
    return std::nullopt;
}

} // namespace vemira
