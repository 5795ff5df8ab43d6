// vemira autostart on | off | status, and vemira log: how Vemira sits in the user's session.
#include "app/SystemServices.h"
#include "cli/Command.h"
#include "records/LogFile.h"

#include <QTextStream>

namespace vemira::cli {

namespace {

int runAutostart(const QStringList& arguments)
{
    if (arguments.size() != 1)
        return UsageError;
    const QString& action = arguments.first();
    std::unique_ptr<LoginItem> item = createPlatformLoginItem();
    if (action == QLatin1String("on") || action == QLatin1String("off")) {
        const bool on = action == QLatin1String("on");
        if (Status failed = item->setEnabled(on))
            return fail(failed->message());
        out() << (on ? "Vemira sera lancé à l’ouverture de session ("
                     : "Vemira ne sera plus lancé "
                       "à l’ouverture de session (")
              << item->where() << ").\n";
        return Success;
    }
    if (action != QLatin1String("status"))
        return UsageError;
    const Result<bool> enabled = item->enabled();
    if (!enabled)
        return fail(enabled.error().message());
    out() << "Lancement à l’ouverture de session : " << (enabled.value() ? "activé" : "désactivé")
          << " (" << item->where() << ")\n";
    return Success;
}

int runLog(const QStringList& arguments)
{
    int count = 20;
    if (arguments.size() > 1)
        return UsageError;
    if (arguments.size() == 1) {
        bool ok = false;
        count = arguments.first().toInt(&ok);
        if (!ok || count < 1)
            return fail(QStringLiteral("Le nombre de lignes doit être un entier positif : « ") +
                            arguments.first() + QStringLiteral(" »."),
                        UsageError);
    }
    const LogFile log(LogFile::standardFolder());
    out() << "Journal : " << log.path() << '\n';
    for (const QString& line : log.lastLines(count))
        out() << line << '\n';
    return Success;
}

void registerSystemCommands(CommandTable& table)
{
    Command autostart{QStringLiteral("autostart"),
                      QStringLiteral("on|off|status"),
                      QStringLiteral("Lance ou non Vemira à l’ouverture de session."),
                      QStringLiteral("Vemira démarre alors discrètement, dans la zone de "
                                     "notification, et remet la veille en marche si elle l’était "
                                     "à la fermeture de la session (si vous l’avez accepté)."),
                      {}};
    autostart.run = [autostart](const QStringList& arguments) {
        const int status = runAutostart(arguments);
        return status == UsageError ? usage(autostart) : status;
    };
    table.add(autostart);

    Command log{QStringLiteral("log"),
                QStringLiteral("[LIGNES]"),
                QStringLiteral("Affiche où est le journal de Vemira et ses dernières lignes."),
                QStringLiteral("20 lignes par défaut. Le journal ne contient ni clé, ni mot de "
                               "passe, ni texte des conversations."),
                {}};
    log.run = [log](const QStringList& arguments) {
        const int status = runLog(arguments);
        return status == UsageError && arguments.size() != 1 ? usage(log) : status;
    };
    table.add(log);
}

const CommandRegistrar registrar(&registerSystemCommands);

} // namespace

} // namespace vemira::cli
