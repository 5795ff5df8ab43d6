#include "records/DataFolder.h"

#include <QStandardPaths>

namespace vemira {

DataFolder DataFolder::standard()
{
    const QString overridden = qEnvironmentVariable("VEMIRA_DATA_DIR");
    if (!overridden.isEmpty())
        return DataFolder(overridden);
    // GenericDataLocation is the per-user application-support folder on macOS and the XDG
    // data home on Linux. When the platform gives none, fall back to the home folder rather
    // than writing next to the executable.
    QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (base.isEmpty())
        base = QStandardPaths::writableLocation(QStandardPaths::HomeLocation);
    return DataFolder(base + QStringLiteral("/Brelian"));
}

QString DataFolder::historyFile() const
{
    return m_path + QStringLiteral("/history.json");
}

QString DataFolder::deletedFile() const
{
    return m_path + QStringLiteral("/history-deleted.json");
}

QString DataFolder::callInProgressFile() const
{
    return m_path + QStringLiteral("/call-in-progress.json");
}

QString DataFolder::transcriptsFolder() const
{
    return m_path + QStringLiteral("/Transcriptions");
}

QString DataFolder::recordingsFolder() const
{
    return m_path + QStringLiteral("/Enregistrements");
}

QString DataFolder::credentialsFolder() const
{
    return m_path + QStringLiteral("/Credentials");
}

QString DataFolder::mailQueueFolder() const
{
    return m_path + QStringLiteral("/Courriels");
}

} // namespace vemira
