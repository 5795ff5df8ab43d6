#include "ui/GuiDesktopServices.h"

#include <QClipboard>
#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QGuiApplication>
#include <QMimeData>
#include <QProcess>
#include <QStandardPaths>
#include <QUrl>

#if defined(Q_OS_LINUX)
#include <QDBusConnection>
#include <QDBusMessage>
#endif

namespace vemira::ui {

bool GuiDesktopServices::copyPlainText(const QString& text)
{
    QClipboard* clipboard = QGuiApplication::clipboard();
    if (clipboard == nullptr)
        return false;
    clipboard->clear();
    clipboard->setText(text);
    // Some platforms refuse silently (no clipboard owner on a bare X server): read it back.
    return clipboard->text() == text;
}

std::optional<QString> GuiDesktopServices::chooseSaveLocation(const QString& proposedName,
                                                              FileType type)
{
    QString folder = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    if (folder.isEmpty())
        folder = QDir::homePath();
    const QString filter = type == FileType::PlainText ? QStringLiteral("Texte (*.txt)")
                                                       : QStringLiteral("Audio WAVE (*.wav)");
    const QString title = type == FileType::PlainText ? QStringLiteral("Exporter la transcription")
                                                      : QStringLiteral("Exporter l’enregistrement");
    const QString chosen =
        QFileDialog::getSaveFileName(m_parent, title, QDir(folder).filePath(proposedName), filter);
    if (chosen.isEmpty())
        return std::nullopt;
    return chosen;
}

void GuiDesktopServices::revealInFileBrowser(const QString& path)
{
    const QString absolute = QFileInfo(path).absoluteFilePath();
#if defined(Q_OS_MACOS)
    if (QProcess::startDetached(QStringLiteral("/usr/bin/open"), {QStringLiteral("-R"), absolute}))
        return;
#elif defined(Q_OS_LINUX)
    // File managers that implement org.freedesktop.FileManager1 select the file itself.
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"),
        QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(absolute).toString()} << QString();
    const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, 2000);
    if (reply.type() == QDBusMessage::ReplyMessage)
        return;
#endif
    QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(absolute).absolutePath()));
}

} // namespace vemira::ui
