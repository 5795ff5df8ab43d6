// vemira instructions
#include "cli/Command.h"
#include "records/AgentInstructions.h"
#include "records/Settings.h"

#include <QTextStream>

namespace vemira::cli {

void registerInstructionsCommands(CommandTable& table)
{
    table.add({QStringLiteral("instructions"), QString(),
               QStringLiteral("Affiche les consignes composées pour l’assistante."),
               QStringLiteral("Le texte exact envoyé au modèle au début d’une conversation, "
                              "d’après les réglages enregistrés."),
               [&table](const QStringList& arguments) {
                   if (!arguments.isEmpty())
                       return usage(*table.find(QStringLiteral("instructions")));
                   out() << composeInstructions(instructionInputs(Settings()));
                   return int(Success);
               }});
}

} // namespace vemira::cli
