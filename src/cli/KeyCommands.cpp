// vemira key set | delete | status
#include "cli/Command.h"
#include "core/PlatformWording.h"
#include "records/APIKeyStore.h"
#include "records/DataFolder.h"
#include "records/Settings.h"

#include <QFile>
#include <QTextStream>

namespace vemira::cli {

namespace {

LocalKeyStore keyStore()
{
    return LocalKeyStore(DataFolder::standard().credentialsFolder());
}

int runKey(const QStringList& arguments)
{
    if (arguments.size() != 1)
        return UsageError;
    const QString& action = arguments.first();
    if (action == QLatin1String("set")) {
        // From standard input, so the key never shows in the process list or shell history.
        QFile input;
        if (!input.open(stdin, QIODevice::ReadOnly))
            return fail(QStringLiteral("L’entrée standard n’a pas pu être lue."));
        auto key = keyFromUserText(QString::fromUtf8(input.readAll()));
        if (!key)
            return fail(key.error().message());
        if (Status failed = keyStore().save(key.value()))
            return fail(failed->message());
        Settings().setKeySaved(true);
        err() << PlatformWording::current().keySavedEvent << "\n";
        return Success;
    }
    if (action == QLatin1String("delete")) {
        if (Status failed = keyStore().remove())
            return fail(failed->message());
        Settings().setKeySaved(false);
        return Success;
    }
    if (action == QLatin1String("status")) {
        auto key = keyStore().readKey();
        if (!key)
            return fail(key.error().message());
        out() << (key.value() ? "présente" : "absente") << '\n';
        return Success;
    }
    return UsageError;
}

} // namespace

void registerKeyCommands(CommandTable& table)
{
    table.add({QStringLiteral("key"), QStringLiteral("set | delete | status"),
               QStringLiteral("Gère la clé OpenAI enregistrée sur cet ordinateur."),
               QStringLiteral("set lit la clé sur l’entrée standard (espaces et retours à la ligne "
                              "autour sont retirés).\n"
                              "delete supprime le fichier de clé.\n"
                              "status affiche « présente » ou « absente »."),
               [&table](const QStringList& arguments) {
                   const int status = runKey(arguments);
                   return status == UsageError ? usage(*table.find(QStringLiteral("key"))) : status;
               }});
}

} // namespace vemira::cli
