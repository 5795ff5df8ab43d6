#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <functional>

class QTextStream;

namespace vemira::cli {

// Exit statuses of the tool.
enum Exit { Success = 0, Failure = 1, UsageError = 2 };

struct Command {
    QString name;     // "history", "key", …
    QString synopsis; // arguments after the name, for the usage lines
    QString summary;  // one line for `vemira --help`
    QString help;     // the rest of `vemira COMMAND --help`
    std::function<int(const QStringList& arguments)> run;
};

class CommandTable {
public:
    void add(Command command);
    const Command* find(const QString& name) const;
    const QList<Command>& commands() const { return m_commands; }

private:
    QList<Command> m_commands;
};

// Each group of commands lives in its own file with a register…Commands function. A file
// can also register itself, without touching main.cpp:
//     static const vemira::cli::CommandRegistrar registrar(&registerAiCommands);
using Registration = void (*)(CommandTable&);
class CommandRegistrar {
public:
    explicit CommandRegistrar(Registration registration);
    static const QList<Registration>& registrations();
};

void registerRecordsCommands(CommandTable& table);
void registerKeyCommands(CommandTable& table);
void registerInstructionsCommands(CommandTable& table);

// Standard streams in UTF-8. Results go to standard output, French messages to standard error.
QTextStream& out();
QTextStream& err();
// Writes the message on standard error and returns `status`.
int fail(const QString& message, int status = Failure);
// "Usage : vemira NAME SYNOPSIS" on standard error, status UsageError.
int usage(const Command& command);

} // namespace vemira::cli
