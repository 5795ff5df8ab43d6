#include "records/InstanceLock.h"

#include "records/PrivateFiles.h"

#include <QCoreApplication>
#include <QFile>

namespace vemira {

namespace {

QString described(const QString& application)
{
    return application.isEmpty() ? QStringLiteral("un autre programme Vemira")
                                 : QStringLiteral("« ") + application + QStringLiteral(" »");
}

QString ownerFile(const QString& lockPath)
{
    return lockPath + QStringLiteral(".owner");
}

} // namespace

Result<std::unique_ptr<InstanceLock>> InstanceLock::acquire(const DataFolder& folder,
                                                            const QString& program)
{
    if (Status failed = PrivateFiles::ensureFolder(folder.path()))
        return *failed;
    const QString path = folder.path() + u'/' + fileName();
    std::unique_ptr<InstanceLock> lock(new InstanceLock(path));
    // A receptionist runs for days: age alone never makes its lock stale, only a dead holder.
    lock->m_lock.setStaleLockTime(0);
    if (lock->m_lock.tryLock(0)) {
        // QLockFile records only the executable's name; the owner file says which command.
        PrivateFiles::write(ownerFile(path), program.toUtf8());
        return lock;
    }
    if (lock->m_lock.error() != QLockFile::LockFailedError) {
        return AppError(QStringLiteral("Le verrou du dossier de données « ") + path +
                        QStringLiteral(" » n’a pas pu être créé : vérifiez les droits du "
                                       "dossier."));
    }
    qint64 pid = 0;
    QString host;
    QString application;
    lock->m_lock.getLockInfo(&pid, &host, &application);
    QFile owner(ownerFile(path));
    if (owner.open(QIODevice::ReadOnly)) {
        const QString named = QString::fromUtf8(owner.readAll()).trimmed();
        if (!named.isEmpty())
            application = named;
    }
    return AppError(QStringLiteral("Vemira fonctionne déjà sur ce dossier de données : ") +
                    described(application) + QStringLiteral(" (processus %1").arg(pid) +
                    (host.isEmpty() ? QString() : QStringLiteral(", machine ") + host) +
                    QStringLiteral("). Un seul standard peut répondre aux appels : fermez-le "
                                   "avant d’en lancer un autre."));
}

InstanceLock::~InstanceLock()
{
    QFile::remove(ownerFile(m_lock.fileName()));
    m_lock.unlock();
}

} // namespace vemira
