#include "platform/linux/system/LinuxWorkspace.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QFileInfo>
#include <QProcess>

namespace vemira {

LinuxWorkspace::LinuxWorkspace(Launcher launcher) : m_launch(std::move(launcher))
{
    if (!m_launch) {
        m_launch = [](const QString& program, const QStringList& arguments) {
            return QProcess::startDetached(program, arguments);
        };
    }
}

bool LinuxWorkspace::openUrl(const QUrl& url)
{
    if (!url.isValid() || url.scheme().isEmpty())
        return false;
    return m_launch(QStringLiteral("xdg-open"), {url.toString(QUrl::FullyEncoded)});
}

void LinuxWorkspace::revealFile(const QString& path)
{
    const QFileInfo file(path);
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.FileManager1"),
            QStringLiteral("/org/freedesktop/FileManager1"),
            QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
        call << QStringList{QUrl::fromLocalFile(file.absoluteFilePath()).toString()} << QString();
        const QDBusMessage reply = bus.call(call, QDBus::Block, 2000);
        if (reply.type() == QDBusMessage::ReplyMessage)
            return;
    }
    m_launch(QStringLiteral("xdg-open"),
             {QUrl::fromLocalFile(file.absolutePath()).toString(QUrl::FullyEncoded)});
}

std::unique_ptr<Workspace> createPlatformWorkspace()
{
    return std::make_unique<LinuxWorkspace>();
}

} // namespace vemira
