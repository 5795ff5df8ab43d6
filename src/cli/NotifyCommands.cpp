// vemira notify set | status | test | retry | off: the e-mail sent to the owner after each call.
#include "cli/Command.h"
#include "notify/AfterCallMail.h"
#include "notify/MailAccount.h"
#include "notify/MailQueue.h"
#include "notify/SmtpTransport.h"
#include "records/DataFolder.h"
#include "records/Settings.h"

#include <QDateTime>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QTextStream>

namespace vemira::cli {

namespace {

// A password may hold spaces at either end: only the line break that ends the input goes.
QString passwordFromInput(const QByteArray& input)
{
    QByteArray bytes = input;
    if (bytes.endsWith('\n'))
        bytes.chop(1);
    if (bytes.endsWith('\r'))
        bytes.chop(1);
    return QString::fromUtf8(bytes);
}

int runSet(const QStringList& arguments)
{
    Settings::Mail mail;
    bool hasUser = false;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& option = arguments.at(i);
        if (option == QLatin1String("--attach-recording")) {
            mail.attachRecording = true;
            continue;
        }
        if (i + 1 >= arguments.size())
            return UsageError;
        const QString& value = arguments.at(++i);
        if (option == QLatin1String("--smtp"))
            mail.server = value.trimmed();
        else if (option == QLatin1String("--from"))
            mail.from = value.trimmed();
        else if (option == QLatin1String("--to"))
            mail.to = value.trimmed();
        else if (option == QLatin1String("--user")) {
            mail.user = value;
            hasUser = true;
        } else if (option == QLatin1String("--ca"))
            mail.caFile = QFileInfo(value).absoluteFilePath();
        else
            return UsageError;
    }
    if (mail.server.isEmpty() || mail.from.isEmpty() || mail.to.isEmpty())
        return UsageError;
    if (hasUser && mail.user.isEmpty())
        return fail(QStringLiteral("L’identifiant du serveur d’envoi est vide."));
    if (Status invalid = checkMailSettings(mail))
        return fail(invalid->message());
    mail.server = parseMailServer(mail.server).value().toString();

    const LocalKeyStore passwords = mailPasswordStore(DataFolder::standard());
    if (hasUser) {
        // From standard input, so the password never shows in the process list or history.
        QFile input;
        if (!input.open(stdin, QIODevice::ReadOnly))
            return fail(QStringLiteral("L’entrée standard n’a pas pu être lue."));
        const QString password = passwordFromInput(input.readAll());
        if (password.isEmpty())
            return fail(QStringLiteral("Saisissez le mot de passe du serveur d’envoi sur "
                                       "l’entrée standard."));
        if (Status failed = passwords.save(password))
            return fail(failed->message());
    } else if (Status failed = passwords.remove()) {
        return fail(failed->message());
    }
    Settings().setMail(mail);
    err() << "E-mail après chaque appel activé : " << mail.to << '\n';
    return Success;
}

int waitingMails()
{
    return MailQueue::waitingIn(DataFolder::standard().mailQueueFolder());
}

int runStatus()
{
    const std::optional<Settings::Mail> mail = Settings().mail();
    // Mails may wait from before e-mail was switched off.
    const int waiting = waitingMails();
    if (waiting > 0)
        err() << waiting << " e-mail(s) en attente d’envoi\n";
    if (!mail) {
        out() << "désactivé\n";
        return Success;
    }
    const bool password = mailPasswordStore(DataFolder::standard()).exists();
    out() << "activé\t" << mail->server << '\t' << mail->from << '\t' << mail->to << '\t'
          << mail->user << '\t'
          << (mail->user.isEmpty() ? "sans identification"
                                   : (password ? "mot de passe enregistré" : "mot de passe absent"))
          << '\t' << (mail->attachRecording ? "enregistrement joint" : "enregistrement non joint")
          << '\n';
    return Success;
}

int runTest()
{
    const std::optional<Settings::Mail> mail = Settings().mail();
    if (!mail)
        return fail(QStringLiteral("L’envoi d’e-mail n’est pas configuré : utilisez d’abord "
                                   "« vemira notify set »."));
    if (Status invalid = checkMailSettings(*mail))
        return fail(invalid->message());
    auto built = mailRequest(*mail, mailPasswordStore(DataFolder::standard()));
    if (!built)
        return fail(built.error().message());
    SmtpRequest request = std::move(built.value());
    request.message = encodeMail(testMail(*mail, QDateTime::currentDateTime()));
    const SmtpOutcome outcome = sendMail(request);
    if (outcome.error)
        return fail(outcome.error->message());
    err() << "E-mail d’essai accepté par le serveur pour " << mail->to << '\n';
    return Success;
}

// Sends the waiting mails now, once each; the exit status says whether any still waits.
int runRetry()
{
    const DataFolder folder = DataFolder::standard();
    const int before = waitingMails();
    if (before == 0) {
        err() << "Aucun e-mail en attente.\n";
        return Success;
    }
    MailQueue queue(SystemClock::instance(), folder.mailQueueFolder(),
                    [&folder]() -> Result<SmtpRequest> {
                        const std::optional<Settings::Mail> mail = Settings().mail();
                        if (!mail)
                            return AppError(QStringLiteral("l’envoi d’e-mail n’est pas "
                                                           "configuré : utilisez d’abord "
                                                           "« vemira notify set »."));
                        return mailRequest(*mail, mailPasswordStore(folder));
                    });
    queue.setLog([](const QString& line) { err() << line << '\n'; });
    QEventLoop loop;
    bool idle = false;
    queue.onIdle = [&] {
        idle = true;
        loop.quit();
    };
    queue.retryNow();
    if (!idle)
        loop.exec();
    const int after = waitingMails();
    err() << (before - after) << " e-mail(s) envoyé(s) ou abandonné(s), " << after
          << " encore en attente\n";
    return after == 0 ? Success : Failure;
}

int runOff()
{
    if (Status failed = mailPasswordStore(DataFolder::standard()).remove())
        return fail(failed->message());
    Settings().setMail(std::nullopt);
    err() << "E-mail après chaque appel désactivé\n";
    return Success;
}

int runNotify(const QStringList& arguments)
{
    if (arguments.isEmpty())
        return UsageError;
    const QString& action = arguments.first();
    if (action == QLatin1String("set"))
        return runSet(arguments.mid(1));
    if (arguments.size() != 1)
        return UsageError;
    if (action == QLatin1String("status"))
        return runStatus();
    if (action == QLatin1String("test"))
        return runTest();
    if (action == QLatin1String("retry"))
        return runRetry();
    if (action == QLatin1String("off"))
        return runOff();
    return UsageError;
}

void registerNotifyCommands(CommandTable& table)
{
    table.add(
        {QStringLiteral("notify"),
         QStringLiteral("set --smtp URL --from ADRESSE --to ADRESSE [--user NOM] [--ca FICHIER] "
                        "[--attach-recording] | status | test | retry | off"),
         QStringLiteral("Règle l’e-mail envoyé au gérant après chaque appel."),
         QStringLiteral(
             "set enregistre le serveur d’envoi (smtps://hôte[:port], ou smtp://hôte[:port] avec "
             "STARTTLS ; sans chiffrement seulement vers cet ordinateur), l’expéditeur et le "
             "destinataire. Avec --user, le mot de passe est lu sur l’entrée standard et gardé "
             "dans un fichier privé. --ca désigne le certificat d’autorité d’un serveur à "
             "certificat propre ; --attach-recording joint l’enregistrement audio (15 Mo au "
             "plus).\n"
             "status affiche « désactivé », ou « activé » suivi du serveur, de l’expéditeur, du "
             "destinataire, de l’identifiant, de l’état du mot de passe et de l’enregistrement "
             "joint ou non, séparés par des tabulations ; le nombre d’e-mails en attente "
             "d’envoi, s’il y en a, est dit sur la sortie d’erreur.\n"
             "test envoie un e-mail d’essai ; le statut de sortie est 0 seulement si le serveur "
             "l’a accepté.\n"
             "retry envoie tout de suite les e-mails d’après appel en attente (un serveur "
             "injoignable : ils sont réessayés pendant trois jours au moins, de plus en plus "
             "espacés) ; le statut de sortie est 0 seulement s’il n’en reste aucun.\n"
             "off arrête les e-mails et supprime le mot de passe enregistré."),
         [&table](const QStringList& arguments) {
             const int status = runNotify(arguments);
             return status == UsageError ? usage(*table.find(QStringLiteral("notify"))) : status;
         }});
}

const CommandRegistrar registrar(&registerNotifyCommands);

} // namespace

} // namespace vemira::cli
