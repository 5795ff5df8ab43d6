#include "ui/SingleInstance.h"

#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QLocalServer>
#include <QLocalSocket>
#include <QThread>

namespace vemira::ui {

namespace {
constexpr char kShowRequest[] = "show\n";
constexpr char kShown[] = "ok\n";
// A running application listens from the moment it holds the lock: a short wait covers that
// moment; `vemira standby` never listens, and its refusal should not keep the user waiting.
constexpr int kConnectMs = 1000;
constexpr int kAnswerMs = 3000;
} // namespace

SingleInstance::SingleInstance(const DataFolder& folder, QObject* parent)
    : QObject(parent), m_server(new QLocalServer(this)), m_name(serverName(folder))
{
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    connect(m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* socket = m_server->nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
                if (!socket->canReadLine())
                    return;
                if (socket->readLine() == kShowRequest) {
                    Q_EMIT showRequested();
                    socket->write(kShown);
                }
                socket->disconnectFromServer();
            });
        }
    });
}

QString SingleInstance::serverName(const DataFolder& folder)
{
    // Unix socket paths are short: a digest of the folder, not the folder itself.
    return QStringLiteral("vemira-") +
           QString::fromLatin1(
               QCryptographicHash::hash(folder.path().toUtf8(), QCryptographicHash::Sha256)
                   .toHex()
                   .left(24));
}

bool SingleInstance::listen()
{
    if (m_server->listen(m_name))
        return true;
    QLocalServer::removeServer(m_name);
    return m_server->listen(m_name);
}

bool SingleInstance::askRunningToShow(const DataFolder& folder)
{
    const QString name = serverName(folder);
    QDeadlineTimer deadline(kConnectMs);
    QLocalSocket socket;
    while (true) {
        socket.connectToServer(name);
        if (socket.waitForConnected(int(deadline.remainingTime())))
            break;
        // `vemira standby` holds the lock without listening: the caller shows its message.
        if (deadline.hasExpired())
            return false;
        QThread::msleep(50);
    }
    deadline.setRemainingTime(kAnswerMs);
    socket.write(kShowRequest);
    while (!socket.canReadLine()) {
        if (!socket.waitForReadyRead(int(deadline.remainingTime())))
            return false;
    }
    return socket.readLine() == kShown;
}

} // namespace vemira::ui
