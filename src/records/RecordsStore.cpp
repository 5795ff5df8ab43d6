#include "records/RecordsStore.h"

#include "records/DesktopServices.h"
#include "records/HistoryCodec.h"
#include "records/HistoryMerge.h"
#include "records/PrivateFiles.h"
#include "records/TranscriptDocument.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLockFile>
#include <QSet>
#include <QTimer>
#include <unistd.h>

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

// Every writer of the folder (the application, `vemira standby`, each `vemira` edit) takes it
// for the read-merge-write of one save, so no two saves interleave.
constexpr int kWriteLockWaitMs = 10000;

// Keeps the file about to be replaced as history.json.bak. A hard link costs nothing
// whatever the history's size; a copy is the fallback where links are not possible.
void keepBackup(const QString& path)
{
    const QString backup = path + QStringLiteral(".bak");
    const QString staging = backup + QStringLiteral(".tmp");
    QFile::remove(staging);
    if (::link(QFile::encodeName(path).constData(), QFile::encodeName(staging).constData()) != 0 &&
        !QFile::copy(path, staging)) {
        return;
    }
    PrivateFiles::restrict(staging);
    if (::rename(QFile::encodeName(staging).constData(), QFile::encodeName(backup).constData()) !=
        0)
        QFile::remove(staging);
}

} // namespace

RecordsStore::RecordsStore(DataFolder folder, QObject* parent)
    : QObject(parent), m_folder(std::move(folder))
{}

Result<QList<CallRecord>> RecordsStore::readFile(const QString& path)
{
    auto bytes = PrivateFiles::read(path);
    if (!bytes)
        return bytes.error();
    return decodeHistory(bytes.value());
}

Status RecordsStore::load()
{
    const QString path = m_folder.historyFile();
    const QFileInfo info(path);
    if (!info.exists() && !info.isSymLink()) {
        m_records.clear();
        m_base.clear();
        m_stamp = FileStamp{};
        Q_EMIT recordsChanged();
        return std::nullopt;
    }
    // Stamped before reading: a change made meanwhile is seen again at the next look.
    const FileStamp stamp = FileStamp::of(path);
    auto decoded = readFile(path);
    if (!decoded) {
        m_records.clear();
        m_historyReadFailed = true;
        m_readFailure = decoded.error();
        Q_EMIT recordsChanged();
        return AppError(unreadableAtStart());
    }
    m_records = std::move(decoded).value();
    m_base = indexById(m_records);
    m_stamp = stamp;
    Q_EMIT recordsChanged();
    return std::nullopt;
}

void RecordsStore::watchFile()
{
    if (m_watcher)
        return;
    m_watcher = new QFileSystemWatcher(this);
    auto* pending = new QTimer(this);
    pending->setSingleShot(true);
    pending->setInterval(50); // one look for a burst of changes
    connect(pending, &QTimer::timeout, this, [this] { refreshFromFile(); });
    const auto changed = [pending] { pending->start(); };
    connect(m_watcher, &QFileSystemWatcher::fileChanged, this, changed);
    connect(m_watcher, &QFileSystemWatcher::directoryChanged, this, changed);
    PrivateFiles::ensureFolder(m_folder.path());
    // The folder too: an atomic replacement is a new file, which a file watch loses.
    m_watcher->addPath(m_folder.path());
    if (QFileInfo::exists(m_folder.historyFile()))
        m_watcher->addPath(m_folder.historyFile());
}

Status RecordsStore::refreshFromFile()
{
    if (m_watcher && !m_watcher->files().contains(m_folder.historyFile()) &&
        QFileInfo::exists(m_folder.historyFile()))
        m_watcher->addPath(m_folder.historyFile());
    if (m_historyReadFailed)
        return std::nullopt; // decided at start; only a restart reads it again
    m_keptMissing = false;
    if (Status failed = mergeFile())
        return failed;
    // Records the file lost from outside are only in memory: put them back on disk now.
    return m_keptMissing ? saveHistory() : std::nullopt;
}

QSet<QUuid> RecordsStore::readDeleted() const
{
    // An unreadable list only means fewer deletions are known: records are kept, not lost.
    QSet<QUuid> ids;
    auto bytes = PrivateFiles::read(m_folder.deletedFile());
    if (!bytes)
        return ids;
    const QJsonArray list = QJsonDocument::fromJson(bytes.value()).array();
    for (const auto& value : list) {
        if (const auto id = parseUuid(value.toString()))
            ids.insert(*id);
    }
    return ids;
}

Status RecordsStore::writeDeleted()
{
    const QSet<QUuid> onDisk = readDeleted();
    m_deleted.unite(onDisk);
    if (m_deleted.size() == onDisk.size())
        return std::nullopt;
    QStringList ids;
    for (const QUuid& id : std::as_const(m_deleted))
        ids.append(uuidText(id));
    ids.sort();
    return PrivateFiles::write(
        m_folder.deletedFile(),
        QJsonDocument(QJsonArray::fromStringList(ids)).toJson(QJsonDocument::Compact));
}

Status RecordsStore::mergeFile()
{
    const QString path = m_folder.historyFile();
    const FileStamp now = FileStamp::of(path);
    // Unchanged, or moved away: our list stays, and the next save writes it back.
    if (now == m_stamp || !now.exists)
        return std::nullopt;
    auto theirs = readFile(path);
    if (!theirs)
        return theirs.error();
    m_deleted.unite(readDeleted());
    QList<QUuid> kept;
    QList<CallRecord> merged = mergeHistory(m_base, m_records, theirs.value(), m_deleted, &kept);
    m_base = indexById(theirs.value());
    m_stamp = now;
    if (!kept.isEmpty()) {
        m_keptMissing = true;
        QStringList references;
        for (const QUuid& id : std::as_const(kept))
            references.append(uuidText(id).left(8));
        Q_EMIT notice(QStringLiteral("history.json a été remplacé sans %1 appel(s) que Vemira "
                                     "n’a pas supprimés ; ils sont conservés : %2.")
                          .arg(kept.size())
                          .arg(references.join(QStringLiteral(", "))));
    }
    if (merged != m_records) {
        m_records = std::move(merged);
        Q_EMIT recordsChanged();
    }
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
    if (m_historyReadFailed) {
        // The transcript files are separate files: the calls of this run are kept on disk
        // that way, while the unreadable history stays untouched.
        (void)writeTranscriptFiles();
        return AppError(refusedWhileUnreadable());
    }
    if (Status failed = PrivateFiles::ensureFolder(m_folder.path()))
        return cannotSave(*failed);
    if (Status failed = writeLocked()) {
        // The calls then live on in their transcript files, as with an unreadable history.
        (void)writeTranscriptFiles();
        return failed;
    }
    if (Status failed = writeTranscriptFiles()) {
        return AppError(QStringLiteral("Historique enregistré, mais un fichier de transcription "
                                       "n’a pas pu être mis à jour : ") +
                        failed->message());
    }
    return std::nullopt;
}

Status RecordsStore::writeLocked()
{
    const QString path = m_folder.historyFile();
    QLockFile lock(path + QStringLiteral(".lock"));
    if (!lock.tryLock(kWriteLockWaitMs)) {
        return cannotSave(AppError(QStringLiteral("un autre programme Vemira l’écrit en ce moment. "
                                                  "Réessayez dans un instant.")));
    }
    if (Status unreadable = mergeFile()) {
        return cannotSave(AppError(QStringLiteral("le fichier a été modifié par un autre "
                                                  "programme et ne peut pas être lu (") +
                                   unreadable->message() +
                                   QStringLiteral("). Il n’a pas été modifié.")));
    }
    auto bytes = encodeRecords();
    if (!bytes)
        return cannotSave(bytes.error());
    // Before the history: a record must never be missing from the file without its deletion
    // being known.
    if (Status failed = writeDeleted())
        return cannotSave(*failed);
    if (m_stamp.exists && FileStamp::of(path).exists)
        keepBackup(path);
    if (Status failed = PrivateFiles::write(path, bytes.value()))
        return cannotSave(*failed);
    m_base = indexById(m_records);
    m_stamp = FileStamp::of(path);
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

Status RecordsStore::writeCallInProgress(const CallRecord& record)
{
    auto bytes = encodeRecord(record);
    if (!bytes)
        return bytes.error();
    if (Status failed = PrivateFiles::ensureFolder(m_folder.path()))
        return failed;
    return PrivateFiles::write(m_folder.callInProgressFile(), bytes.value());
}

std::optional<CallRecord> RecordsStore::readCallInProgress() const
{
    auto bytes = PrivateFiles::read(m_folder.callInProgressFile());
    if (!bytes)
        return std::nullopt;
    auto records = decodeHistory('[' + bytes.value() + ']');
    if (!records || records.value().size() != 1)
        return std::nullopt;
    return records.value().first();
}

void RecordsStore::removeCallInProgress()
{
    QFile::remove(m_folder.callInProgressFile());
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

Status RecordsStore::updateMessage(const QUuid& id, const CallMessage& message)
{
    if (!modify(id, [&](CallRecord& r) { r.message = message.cleaned(); }))
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

Status RecordsStore::deleteRecord(QUuid id)
{
    qsizetype index = -1;
    for (qsizetype i = 0; i < m_records.size(); ++i) {
        if (m_records[i].id == id) {
            index = i;
            break;
        }
    }
    if (index < 0)
        return std::nullopt;
    if (m_records[index].progress == CallProgress::InProgress) {
        return AppError(QStringLiteral("Cet appel est en cours : il pourra être supprimé une fois "
                                       "terminé (après un arrêt inattendu, au prochain démarrage "
                                       "du standard)."));
    }
    const CallRecord record = m_records.takeAt(index);
    const bool known = m_deleted.contains(id);
    m_deleted.insert(id);
    Q_EMIT recordsChanged();
    // While the file is unreadable the record lived only in memory: its files go all the same.
    if (!m_historyReadFailed) {
        if (Status failed = saveHistory(); failed && m_base.contains(id)) {
            // Still in the file: keep the record and its files rather than half-delete it.
            m_records.insert(qMin(index, m_records.size()), record);
            if (!known)
                m_deleted.remove(id);
            Q_EMIT recordsChanged();
            return failed;
        }
    }
    m_encoded.remove(id);
    m_written.remove(id);
    QFile::remove(m_folder.transcriptsFolder() + u'/' + transcriptFileName(record));
    const QString recording = m_folder.recordingsFolder() + QStringLiteral("/Appel-") +
                              uuidText(id) + QStringLiteral(".wav");
    for (const QString& file : {recording, recording + QStringLiteral(".input.caf"),
                                recording + QStringLiteral(".voice.caf")})
        QFile::remove(file);
    if (const auto named = recordingPath(record))
        QFile::remove(*named);
    return std::nullopt;
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
    // A record built in memory is held to the same rule as one read from the file.
    if (!CallRecord::isRecordingName(*record.recordingFile))
        return std::nullopt;
    const QString path = m_folder.recordingsFolder() + u'/' + *record.recordingFile;
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
