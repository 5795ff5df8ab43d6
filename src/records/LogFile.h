#pragma once

#include "core/AppError.h"

#include <QString>
#include <QStringList>

namespace vemira {

// The session log kept on disk: one line per entry, owner-only (folder 0700, file 0600),
// rotated so the whole stays under a few megabytes. A receptionist runs for weeks; the log
// must outlive a crash without ever filling the disk. Anything shaped like an API key is
// masked before it reaches the disk. Main thread only.
class LogFile {
public:
    // `maxBytes` caps each of the files; `keptFiles` older files ("vemira.log.1", …) follow
    // the current one, so the whole never exceeds (keptFiles + 1) × maxBytes.
    explicit LogFile(QString folder, qint64 maxBytes = kMaxBytes, int keptFiles = kKeptFiles);

    // The standard folder: ~/Library/Logs/Brelian on macOS, $XDG_STATE_HOME/Brelian (by
    // default ~/.local/state/Brelian) elsewhere; the data folder itself when VEMIRA_DATA_DIR
    // names one.
    static QString standardFolder();

    QString path() const;
    // Appends one line (its line breaks become spaces); a failure is returned once and the
    // next line tries again.
    Status append(const QString& line);
    // The last `count` lines, oldest first, across a rotation.
    QStringList lastLines(int count) const;

    static QString masked(QString line);

    static constexpr qint64 kMaxBytes = 1024 * 1024;
    static constexpr int kKeptFiles = 2;

private:
    QString olderPath(int rank) const;
    void rotate();

    QString m_folder;
    qint64 m_maxBytes;
    int m_keptFiles;
};

} // namespace vemira
