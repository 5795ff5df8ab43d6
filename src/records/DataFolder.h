#pragma once

#include <QString>

namespace vemira {

// Where the user's data lives: the folder "Brelian" of the per-user data location
// (~/Library/Application Support on macOS, $XDG_DATA_HOME or ~/.local/share on Linux).
// VEMIRA_DATA_DIR, when set, names that folder directly (tests and scripted use).
class DataFolder {
public:
    explicit DataFolder(QString path) : m_path(std::move(path)) {}
    static DataFolder standard();

    const QString& path() const { return m_path; }
    QString historyFile() const;        // history.json
    QString deletedFile() const;        // history-deleted.json (ids of deleted records)
    QString callInProgressFile() const; // call-in-progress.json (the call under way)
    QString transcriptsFolder() const;  // Transcriptions
    QString recordingsFolder() const;   // Enregistrements (call recordings, "Appel-<ID>.wav")
    QString credentialsFolder() const;  // Credentials (the API key file)
    QString mailQueueFolder() const;    // Courriels (after-call e-mails not yet sent)

private:
    QString m_path;
};

} // namespace vemira
