#include "notify/MailAccount.h"

#include "records/DataFolder.h"

#include <QFileInfo>
#include <QHostAddress>
#include <QRegularExpression>

namespace vemira {

Result<QUrl> parseMailServer(const QString& text)
{
    const QString trimmed = text.trimmed();
    const AppError invalid(
        QStringLiteral("L’adresse du serveur d’envoi « ") + trimmed +
        QStringLiteral(" » n’est pas valable : écrivez par exemple "
                       "smtps://smtp.exemple.fr ou smtp://smtp.exemple.fr:587."));
    QUrl url(trimmed, QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty())
        return invalid;
    const QString scheme = url.scheme().toLower();
    if (scheme != QLatin1String("smtps") && scheme != QLatin1String("smtp"))
        return invalid;
    if (!url.password().isEmpty() || !url.userName().isEmpty()) {
        return AppError(QStringLiteral(
            "L’adresse du serveur d’envoi ne doit contenir ni identifiant ni mot de passe : "
            "donnez l’identifiant avec --user, le mot de passe est demandé à part."));
    }
    if (!url.query().isEmpty() || !url.fragment().isEmpty())
        return invalid;
    url.setScheme(scheme);
    if (url.port() < 0)
        url.setPort(scheme == QLatin1String("smtps") ? 465 : 587);
    return url;
}

bool isLoopbackHost(const QString& host)
{
    if (host.compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0)
        return true;
    QHostAddress address;
    return address.setAddress(host) && address.isLoopback();
}

MailSecurity mailSecurity(const QUrl& server)
{
    if (server.scheme() == QLatin1String("smtps"))
        return MailSecurity::ImplicitTls;
    return isLoopbackHost(server.host()) ? MailSecurity::StartTlsIfOffered
                                         : MailSecurity::StartTlsRequired;
}

bool isMailAddress(const QString& address)
{
    // Deliberately narrow: one @, no spaces, no angle brackets, no control characters.
    static const QRegularExpression pattern(
        QStringLiteral("^[^@\\s<>()\\[\\],;:\"\\\\]+@[^@\\s<>()\\[\\],;:\"\\\\]+\\.[^@\\s<>()\\[\\]"
                       ",;:\"\\\\.]+$"));
    for (QChar c : address) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            return false;
    }
    return address.size() <= 254 && pattern.match(address).hasMatch();
}

Status checkMailSettings(const Settings::Mail& mail)
{
    if (auto server = parseMailServer(mail.server); !server)
        return server.error();
    if (!isMailAddress(mail.from)) {
        return AppError(QStringLiteral("L’adresse d’expéditeur « ") + mail.from +
                        QStringLiteral(" » n’est pas une adresse e-mail valable."));
    }
    if (!isMailAddress(mail.to)) {
        return AppError(QStringLiteral("L’adresse du destinataire « ") + mail.to +
                        QStringLiteral(" » n’est pas une adresse e-mail valable."));
    }
    for (QChar c : mail.user) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            return AppError(QStringLiteral("L’identifiant du serveur d’envoi contient un "
                                           "caractère de contrôle."));
    }
    if (!mail.caFile.isEmpty() && !QFileInfo(mail.caFile).isReadable()) {
        return AppError(QStringLiteral("Le certificat d’autorité « ") + mail.caFile +
                        QStringLiteral(" » est introuvable ou illisible."));
    }
    return std::nullopt;
}

Result<SmtpRequest> mailRequest(const Settings::Mail& mail, const LocalKeyStore& passwords)
{
    if (Status invalid = checkMailSettings(mail))
        return *invalid;
    SmtpRequest request;
    request.server = mail.server;
    request.user = mail.user;
    request.caFile = mail.caFile;
    request.from = mail.from;
    request.to = mail.to;
    if (!mail.user.isEmpty()) {
        auto password = passwords.read();
        if (!password)
            return password.error();
        if (!password.value())
            return AppError(QStringLiteral("Le mot de passe du serveur d’envoi n’est pas "
                                           "enregistré : saisissez-le de nouveau."));
        request.password = *password.value();
    }
    return request;
}

LocalKeyStore mailPasswordStore(const DataFolder& folder)
{
    return LocalKeyStore(folder.credentialsFolder(), QStringLiteral("smtp.password"));
}

} // namespace vemira
