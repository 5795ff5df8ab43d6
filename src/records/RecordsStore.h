#pragma once

#include "core/AppError.h"
#include "records/CallRecord.h"
#include "records/DataFolder.h"
#include "records/FileStamp.h"

#include <QHash>
#include <QList>
#include <QLocale>
#include <QObject>
#include <QSet>
#include <QUuid>
#include <functional>
#include <optional>

class QFileSystemWatcher;

namespace vemira {

class DesktopServices;

// Owns the call records (newest first) and their files: history.json, the transcript
// files and the record actions (copy, export, reveal, recording export). The application
// model composes it and forwards its operations; the command-line tool uses it directly.
// Main thread only; every save is synchronous.
//
// Operations that the user triggers return the French message to show (std::nullopt: show
// nothing). Saving returns a Status whose error is the message to show.
class RecordsStore : public QObject {
    Q_OBJECT

public:
    explicit RecordsStore(DataFolder folder, QObject* parent = nullptr);

    // Reads history.json. A missing file gives an empty history. An unreadable one gives an
    // empty history, sets historyReadFailed for the rest of the run and returns
    // "Historique illisible. Le fichier existant n’a pas été modifié.".
    Status load();
    // Reads and decodes a history file (history.json or its backup).
    static Result<QList<CallRecord>> readFile(const QString& path);
    // Why the file could not be read at start (record index and key), when it could not.
    const std::optional<AppError>& readFailure() const { return m_readFailure; }

    // Follows history.json: when another process rewrites it, its changes are merged into
    // the list (recordsChanged). Off by default; the application turns it on.
    void watchFile();
    // Merges the file's changes now if it changed since it was last read or written.
    // Returns why it could not be read, if it could not (the list is then left as it is).
    Status refreshFromFile();

    const QList<CallRecord>& records() const { return m_records; }
    bool historyReadFailed() const { return m_historyReadFailed; }
    const DataFolder& folder() const { return m_folder; }
    const CallRecord* find(const QUuid& id) const;
    // The transcript document's date follows this locale (default: the user's).
    void setLocale(const QLocale& locale) { m_locale = locale; }
    const QLocale& locale() const { return m_locale; }

    // Writes the whole list, then the transcript files that changed. When another process
    // rewrote the file since it was read, its changes are merged in first (HistoryMerge),
    // under a lock every writer of the folder takes; an unreadable file is never replaced.
    // The file replaced is kept as history.json.bak.
    Status saveHistory();

    // Adds the demonstration record at the front and saves; returns its id.
    struct DemoAdded {
        QUuid id;
        Status saved;
    };
    DemoAdded addDemo(const QDateTime& now);

    // Record edits: unknown id → nothing at all (std::nullopt, no save).
    Status updateNote(const QUuid& id, const QString& text);
    Status updateDossier(const QUuid& id, const QString& name); // trimmed; empty = unfiled
    Status updateFollowUpStatus(const QUuid& id, const QString& status);
    // The owner's correction of the call's message, cleaned like a model's answer.
    Status updateMessage(const QUuid& id, const CallMessage& message);
    // Deletes the record, its transcript file and its recording; unknown id → nothing. The id
    // is kept in history-deleted.json, so that every other writer drops the record too. A call
    // still under way is refused.
    // By value: callers pass the id of the record they found in the list, whose slot the next
    // record takes once it is removed.
    Status deleteRecord(QUuid id);

    // The record of the call under way, written alone beside the history at each change: a
    // crash then loses at most the last seconds, and keeping it costs the size of one record,
    // not of the whole history. Read back (and removed) at the next start.
    Status writeCallInProgress(const CallRecord& record);
    std::optional<CallRecord> readCallInProgress() const;
    void removeCallInProgress();

    // For the call lifecycle: the list changes in memory; callers then call saveHistory().
    void insertFront(const CallRecord& record);
    // Applies `change` to the first record with this id; false when there is none.
    bool modify(const QUuid& id, const std::function<void(CallRecord&)>& change);

    // The record's transcript document in the store's locale.
    QString transcriptDocument(const CallRecord& record) const;
    // Writes Transcriptions/Appel-<ID>.txt unless it already holds these bytes.
    Result<QString> writeTranscriptFile(const CallRecord& record);
    // Writes the document to `path` atomically (UTF-8); the error is the description only.
    Status writeDocument(const CallRecord& record, const QString& path) const;
    // Where the record's recording is, when it has one and the file exists.
    std::optional<QString> recordingPath(const CallRecord& record) const;

    // Desktop actions; they return the message to show, if any.
    std::optional<QString> copyTranscript(const CallRecord& record, DesktopServices& desktop);
    std::optional<QString> exportTranscript(const CallRecord& record, DesktopServices& desktop);
    std::optional<QString> revealTranscript(const CallRecord& record, DesktopServices& desktop);
    std::optional<QString> exportRecording(const CallRecord& record, DesktopServices& desktop);

Q_SIGNALS:
    // Any change of the list: load, insert, edit, demo.
    void recordsChanged();
    // A line for the session log: records kept that the file had lost.
    void notice(const QString& line);

private:
    struct WrittenTranscript {
        CallRecord record;
        QString localeName;
    };
    Status writeTranscriptFiles();
    Status writeLocked();
    Status mergeFile();
    QSet<QUuid> readDeleted() const;
    Status writeDeleted();

    QFileSystemWatcher* m_watcher = nullptr;
    std::optional<AppError> m_readFailure;
    // The list as the file held it when last read or written, and the file's stamp then.
    QHash<QUuid, CallRecord> m_base;
    FileStamp m_stamp;
    // Every id a Vemira writer of this folder deleted: ours and those read from the file.
    QSet<QUuid> m_deleted;
    bool m_keptMissing = false; // the last merge kept records the file had lost

    DataFolder m_folder;
    QLocale m_locale;
    QList<CallRecord> m_records;
    bool m_historyReadFailed = false;
    // What each transcript file was last written or verified with in this run, so an
    // unchanged record costs one comparison, not a file read.
    QHash<QUuid, WrittenTranscript> m_written;
    // Each record's JSON as last encoded, reused while the record is unchanged.
    struct EncodedRecord {
        CallRecord record;
        QByteArray json;
    };
    QHash<QUuid, EncodedRecord> m_encoded;
    Result<QByteArray> encodeRecords();
};

} // namespace vemira
