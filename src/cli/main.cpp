// The `vemira` tool: headless access to the same data as the application, in the same folder
// and with the same messages.
#include "cli/Command.h"

#include <QCoreApplication>
#include <QTextStream>

namespace vemira::cli {

void CommandTable::add(Command command)
{
    m_commands.append(std::move(command));
}

const Command* CommandTable::find(const QString& name) const
{
    for (const Command& command : m_commands) {
        if (command.name == name)
            return &command;
    }
    return nullptr;
}

namespace {
QList<Registration>& registrationList()
{
    static QList<Registration> list;
    return list;
}
} // namespace

CommandRegistrar::CommandRegistrar(Registration registration)
{
    registrationList().append(registration);
}

const QList<Registration>& CommandRegistrar::registrations()
{
    return registrationList();
}

QTextStream& out()
{
    static QTextStream stream(stdout);
    return stream;
}

QTextStream& err()
{
    static QTextStream stream(stderr);
    return stream;
}

int fail(const QString& message, int status)
{
    err() << message << '\n';
    err().flush();
    return status;
}

int usage(const Command& command)
{
    return fail(QStringLiteral("Usage : vemira ") + command.name +
                    (command.synopsis.isEmpty() ? QString() : u' ' + command.synopsis),
                UsageError);
}

namespace {

void printOverview(const CommandTable& table)
{
    out() << "Usage : vemira COMMANDE [ARGUMENTS]\n\n"
          << "Vemira, le standard téléphonique : accès en ligne de commande aux appels,\n"
          << "aux dossiers, à la clé et aux consignes de l’assistante.\n\n"
          << "Commandes :\n";
    for (const Command& command : table.commands()) {
        QString head = command.name;
        if (!command.synopsis.isEmpty())
            head += u' ' + command.synopsis;
        out() << "  " << head.leftJustified(44) << ' ' << command.summary << '\n';
    }
    out() << "\nREF est la référence de 8 caractères ou l’identifiant complet, en majuscules "
             "ou minuscules.\n"
          << "« vemira COMMANDE --help » détaille une commande ; « vemira --version » donne "
             "la version.\n";
}

void printCommandHelp(const Command& command)
{
    out() << "Usage : vemira " << command.name;
    if (!command.synopsis.isEmpty())
        out() << ' ' << command.synopsis;
    out() << "\n\n" << command.summary << '\n';
    if (!command.help.isEmpty())
        out() << '\n' << command.help << '\n';
}

} // namespace

} // namespace vemira::cli

int main(int argc, char** argv)
{
    using namespace vemira::cli;
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Brelian"));
    QCoreApplication::setApplicationName(QStringLiteral("Vemira"));

    CommandTable table;
    registerRecordsCommands(table);
    registerKeyCommands(table);
    registerInstructionsCommands(table);
    for (Registration registration : CommandRegistrar::registrations())
        registration(table);

    QStringList arguments = QCoreApplication::arguments().mid(1);
    if (arguments.isEmpty()) {
        printOverview(table);
        out().flush();
        return UsageError;
    }
    const QString name = arguments.takeFirst();
    if (name == QLatin1String("--version") || name == QLatin1String("-v") ||
        name == QLatin1String("version")) {
        out() << "vemira " << VEMIRA_VERSION << '\n';
        out().flush();
        return Success;
    }
    if (name == QLatin1String("--help") || name == QLatin1String("-h") ||
        name == QLatin1String("help")) {
        if (!arguments.isEmpty()) {
            if (const Command* command = table.find(arguments.first())) {
                printCommandHelp(*command);
                out().flush();
                return Success;
            }
        }
        printOverview(table);
        out().flush();
        return Success;
    }
    const Command* command = table.find(name);
    if (!command) {
        return fail(QStringLiteral("Commande inconnue : « ") + name +
                        QStringLiteral(" ». « vemira --help » liste les commandes."),
                    UsageError);
    }
    if (arguments.contains(QLatin1String("--help"))) {
        printCommandHelp(*command);
        out().flush();
        return Success;
    }
    const int status = command->run(arguments);
    out().flush();
    err().flush();
    return status;
}
