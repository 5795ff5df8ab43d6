// vemira verify — can the stored key, the chosen model and the network open a realtime session?
#include "ai/AIConnectionCheck.h"
#include "cli/Command.h"
#include "core/Clock.h"
#include "records/APIKeyStore.h"
#include "records/DataFolder.h"
#include "records/Settings.h"

#include <QEventLoop>
#include <QTextStream>

namespace vemira::cli {

namespace {

int runVerify(const QStringList& arguments)
{
    if (!arguments.isEmpty())
        return UsageError;
    const auto key = LocalKeyStore(DataFolder::standard().credentialsFolder()).readKey();
    if (!key)
        return fail(key.error().message());
    if (!key.value())
        return fail(QStringLiteral(
            "Aucune clé n’est enregistrée. Saisissez votre clé existante dans Connexions."));

    const Settings::Group settings = Settings().group();
    err() << "Vérification de la connexion…\n";
    err().flush();

    AIConnectionCheck check(SystemClock::instance());
    QEventLoop loop;
    std::optional<QString> failure;
    check.onComplete = [&](const std::optional<QString>& result) {
        failure = result;
        loop.quit();
    };
    check.start(*key.value(), settings.model, settings.voice);
    loop.exec();
    if (failure)
        return fail(*failure);
    out() << AIConnectionCheck::successStatus() << '\n';
    return Success;
}

void registerAiCommands(CommandTable& table)
{
    table.add({QStringLiteral("verify"), QString(),
               QStringLiteral("Vérifie la connexion à l’IA avec la clé et le modèle enregistrés."),
               QStringLiteral("Ouvre une session temps réel de vérification, sans audio, puis "
                              "demande une réponse texte d’un seul token hors conversation "
                              "(environ 0,0002 $ US) pour vérifier que le compte peut répondre ; "
                              "15 secondes au plus.\n"
                              "Code de sortie 0 seulement si la connexion est vérifiée.\n"
                              "VEMIRA_REALTIME_URL remplace l’adresse du service (ws:// "
                              "seulement en local)."),
               [&table](const QStringList& arguments) {
                   const int status = runVerify(arguments);
                   return status == UsageError ? usage(*table.find(QStringLiteral("verify")))
                                               : status;
               }});
}

const CommandRegistrar registrar(&registerAiCommands);

} // namespace

} // namespace vemira::cli
