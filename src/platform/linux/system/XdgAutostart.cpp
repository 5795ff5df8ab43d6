// The login item on Linux: a desktop entry in the XDG autostart folder, which every desktop
// of the freedesktop family (GNOME, KDE, Xfce, …) starts when the session opens.
#include "app/SystemServices.h"
#include "records/PrivateFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace vemira {

namespace {

class XdgAutostart final : public LoginItem {
public:
    Result<bool> enabled() const override
    {
        QFile file(where());
        if (!file.exists())
            return false;
        if (!file.open(QIODevice::ReadOnly))
            return AppError(QStringLiteral("L’entrée de démarrage « ") + where() +
                            QStringLiteral(" » n’a pas pu être lue."));
        // A desktop may switch an entry off without removing it.
        const QByteArray content = file.readAll();
        return !content.contains("\nHidden=true") &&
               !content.contains("\nX-GNOME-Autostart-enabled=false");
    }

    Status setEnabled(bool enabled) override
    {
        if (!enabled) {
            if (QFile::exists(where()) && !QFile::remove(where()))
                return AppError(QStringLiteral("L’entrée de démarrage « ") + where() +
                                QStringLiteral(" » n’a pas pu être supprimée."));
            return std::nullopt;
        }
        if (!QDir().mkpath(QFileInfo(where()).path()))
            return AppError(QStringLiteral("Le dossier « ") + QFileInfo(where()).path() +
                            QStringLiteral(" » n’a pas pu être créé."));
        const QString entry =
            QStringLiteral("[Desktop Entry]\n"
                           "Type=Application\n"
                           "Name=Vemira\n"
                           "Comment=Standard téléphonique IA, lancé à l’ouverture de session\n"
                           "Exec=%1 --autostart\n"
                           "Icon=" VEMIRA_APP_ID "\n"
                           "Terminal=false\n"
                           "X-GNOME-Autostart-enabled=true\n")
                .arg(quotedProgram());
        if (Status failed = PrivateFiles::writeAtomically(where(), entry.toUtf8()))
            return AppError(QStringLiteral("L’entrée de démarrage n’a pas pu être écrite : ") +
                            failed->message());
        return std::nullopt;
    }

    QString where() const override
    {
        QString config = qEnvironmentVariable("XDG_CONFIG_HOME");
        if (config.isEmpty() || QDir::isRelativePath(config))
            config = QDir::homePath() + QStringLiteral("/.config");
        return config + QStringLiteral("/autostart/" VEMIRA_APP_ID ".desktop");
    }

private:
    // The application beside this program (both sit in /usr/bin when installed, and the
    // command-line tool may ask too); otherwise the one on the PATH.
    static QString quotedProgram()
    {
        const QString beside =
            QCoreApplication::applicationDirPath() + QStringLiteral("/vemira-app");
        if (!QFileInfo(beside).isExecutable())
            return QStringLiteral("vemira-app");
        QString quoted = beside;
        quoted.replace(u'\\', QStringLiteral("\\\\")).replace(u'"', QStringLiteral("\\\""));
        return quoted.contains(u' ') ? u'"' + quoted + u'"' : quoted;
    }
};

} // namespace

std::unique_ptr<LoginItem> createPlatformLoginItem()
{
    return std::make_unique<XdgAutostart>();
}

} // namespace vemira
