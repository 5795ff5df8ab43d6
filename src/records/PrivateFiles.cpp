#include "records/PrivateFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace vemira::PrivateFiles {

namespace {

constexpr QFile::Permissions folderMode = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
constexpr QFile::Permissions fileMode = QFile::ReadOwner | QFile::WriteOwner;

QString quoted(const QString& path)
{
    return QStringLiteral("« ") + QDir::toNativeSeparators(path) + QStringLiteral(" »");
}

QString reason(QFileDevice::FileError error)
{
    switch (error) {
    case QFileDevice::ResourceError:
        return QStringLiteral("l’espace disque est insuffisant");
    case QFileDevice::PermissionsError:
        return QStringLiteral("Les autorisations n’ont pas pu être appliquées");
    case QFileDevice::OpenError:
        return QStringLiteral("il n’a pas pu être ouvert (accès refusé ou dossier absent)");
    case QFileDevice::ReadError:
        return QStringLiteral("sa lecture a échoué");
    case QFileDevice::RenameError:
        return QStringLiteral("l’ancien fichier n’a pas pu être remplacé");
    default:
        return QStringLiteral("son écriture a échoué");
    }
}

AppError fileError(const QString& path, const QString& action, QFileDevice::FileError error)
{
    return AppError(QStringLiteral("Le fichier ") + quoted(path) +
                    QStringLiteral(" n’a pas pu être ") + action + QStringLiteral(" : ") +
                    reason(error) + QStringLiteral("."));
}

} // namespace

Status ensureFolder(const QString& path, bool enforceMode)
{
    const QString absolute = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    if (!QFileInfo(absolute).isDir()) {
        // Create the missing parents one by one so each gets the owner-only mode.
        QStringList missing;
        QString cursor = absolute;
        while (!cursor.isEmpty() && !QFileInfo::exists(cursor)) {
            missing.prepend(cursor);
            const QString parent = QFileInfo(cursor).path();
            if (parent == cursor)
                break;
            cursor = parent;
        }
        for (const QString& folder : std::as_const(missing)) {
            if (!QDir().mkdir(folder, folderMode) && !QFileInfo(folder).isDir()) {
                return AppError(QStringLiteral("Le dossier ") + quoted(folder) +
                                QStringLiteral(" n’a pas pu être créé."));
            }
        }
        if (!QFileInfo(absolute).isDir()) {
            return AppError(QStringLiteral("Le dossier ") + quoted(absolute) +
                            QStringLiteral(" n’a pas pu être créé."));
        }
        return std::nullopt;
    }
    if (enforceMode && !QFile::setPermissions(absolute, folderMode)) {
        return AppError(QStringLiteral("Les autorisations du dossier ") + quoted(absolute) +
                        QStringLiteral(" n’ont pas pu être modifiées."));
    }
    return std::nullopt;
}

Status write(const QString& path, const QByteArray& bytes)
{
    if (Status failed = writeAtomically(path, bytes))
        return failed;
    return restrict(path);
}

Status writeAtomically(const QString& path, const QByteArray& bytes)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return fileError(path, QStringLiteral("écrit"), file.error());
    if (file.write(bytes) != bytes.size()) {
        const auto error = file.error();
        file.cancelWriting();
        return fileError(path, QStringLiteral("écrit"), error);
    }
    if (!file.commit())
        return fileError(path, QStringLiteral("écrit"), file.error());
    return std::nullopt;
}

Status restrict(const QString& path)
{
    if (!QFile::setPermissions(path, fileMode)) {
        return AppError(QStringLiteral("Les autorisations du fichier ") + quoted(path) +
                        QStringLiteral(" n’ont pas pu être modifiées."));
    }
    return std::nullopt;
}

Result<QByteArray> read(const QString& path)
{
    QFile file(path);
    if (QFileInfo(path).isDir())
        return AppError(quoted(path) + QStringLiteral(" est un dossier, pas un fichier."));
    if (!file.open(QIODevice::ReadOnly))
        return fileError(path, QStringLiteral("lu"), file.error());
    QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return fileError(path, QStringLiteral("lu"), file.error());
    return bytes;
}

} // namespace vemira::PrivateFiles
