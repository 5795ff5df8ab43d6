#include "notify/SmtpTransport.h"

#include "notify/MailAccount.h"

#include <QUrl>
#include <curl/curl.h>
#include <memory>
#include <mutex>

namespace vemira {

namespace {

void initialiseCurlOnce()
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct Transfer {
    const QByteArray* message = nullptr;
    qsizetype sent = 0;
    const std::atomic<bool>* cancel = nullptr;
    QByteArray lastReply; // the server's last complete reply line
    QByteArray pending;   // a reply line still arriving
};

size_t readMessage(char* buffer, size_t size, size_t count, void* userData)
{
    auto* transfer = static_cast<Transfer*>(userData);
    const qsizetype left = transfer->message->size() - transfer->sent;
    const qsizetype n = qMin(left, static_cast<qsizetype>(size * count));
    memcpy(buffer, transfer->message->constData() + transfer->sent, static_cast<size_t>(n));
    transfer->sent += n;
    return static_cast<size_t>(n);
}

// Only what the server says is kept; what we send (the login among it) is never looked at.
int watchServer(CURL*, curl_infotype type, char* data, size_t size, void* userData)
{
    if (type != CURLINFO_HEADER_IN)
        return 0;
    auto* transfer = static_cast<Transfer*>(userData);
    transfer->pending.append(data, static_cast<qsizetype>(size));
    qsizetype end;
    while ((end = transfer->pending.indexOf('\n')) >= 0) {
        const QByteArray line = transfer->pending.left(end).trimmed();
        transfer->pending.remove(0, end + 1);
        if (!line.isEmpty())
            transfer->lastReply = line;
    }
    return 0;
}

int progress(void* userData, curl_off_t, curl_off_t, curl_off_t, curl_off_t)
{
    const auto* transfer = static_cast<Transfer*>(userData);
    return transfer->cancel && transfer->cancel->load() ? 1 : 0;
}

QString replyClause(const QString& reply)
{
    return QStringLiteral(" Réponse du serveur : « ") + reply + QStringLiteral(" ».");
}

// The SMTP code at the start of the reply, 0 when there is none.
int replyCode(const QString& reply)
{
    bool ok = false;
    const int code = reply.left(3).toInt(&ok);
    return ok && reply.size() >= 3 ? code : 0;
}

SmtpOutcome describe(CURLcode code, const QString& reply, const QUrl& server, const char* detail)
{
    SmtpOutcome outcome;
    outcome.serverReply = reply;
    const QString where = server.host() + QLatin1Char(':') + QString::number(server.port());
    const QString libraryDetail =
        QString::fromUtf8(*detail ? detail : curl_easy_strerror(code)).trimmed();
    switch (code) {
    case CURLE_LOGIN_DENIED:
        outcome.error = AppError(
            QStringLiteral("Le serveur d’envoi a refusé l’identifiant ou le mot de passe.") +
            (reply.isEmpty() ? QString() : replyClause(reply)));
        return outcome;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_CONNECT:
    case CURLE_OPERATION_TIMEDOUT:
        if (reply.isEmpty()) {
            outcome.error = AppError(QStringLiteral("Le serveur d’envoi ") + where +
                                     QStringLiteral(" est injoignable. Vérifiez son adresse, "
                                                    "son port et la connexion Internet."));
            outcome.retryable = true;
            return outcome;
        }
        break;
    case CURLE_USE_SSL_FAILED:
        outcome.error = AppError(QStringLiteral(
            "Le serveur d’envoi ne propose pas de connexion chiffrée (STARTTLS) : Vemira "
            "n’envoie pas d’e-mail en clair hors de cet ordinateur. Utilisez smtps:// ou un "
            "port qui accepte STARTTLS."));
        return outcome;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
        outcome.error =
            AppError(QStringLiteral("Le certificat du serveur d’envoi n’a pas pu être vérifié (") +
                     libraryDetail + QStringLiteral(")."));
        return outcome;
    case CURLE_SSL_CONNECT_ERROR:
        outcome.error =
            AppError(QStringLiteral("La connexion chiffrée avec le serveur d’envoi a échoué (") +
                     libraryDetail + QStringLiteral(")."));
        outcome.retryable = true;
        return outcome;
    case CURLE_ABORTED_BY_CALLBACK:
        outcome.error = AppError(QStringLiteral("L’envoi de l’e-mail a été interrompu."));
        return outcome;
    default:
        break;
    }
    // Refused along the way (sender, recipient, content) or cut off: the server's own words
    // say why; a 4xx reply is temporary by definition.
    const int smtpCode = replyCode(reply);
    outcome.retryable = smtpCode == 0 || (smtpCode >= 400 && smtpCode < 500);
    outcome.error =
        AppError(reply.isEmpty() ? QStringLiteral("L’e-mail n’a pas pu être envoyé (") +
                                       libraryDetail + QStringLiteral(").")
                                 : QStringLiteral("Le serveur d’envoi n’a pas accepté l’e-mail.") +
                                       replyClause(reply));
    return outcome;
}

struct CurlDeleter {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

} // namespace

SmtpOutcome sendMail(const SmtpRequest& request, const std::atomic<bool>* cancel)
{
    auto server = parseMailServer(request.server);
    if (!server)
        return {server.error(), false, {}};
    initialiseCurlOnce();
    std::unique_ptr<CURL, CurlDeleter> curl(curl_easy_init());
    if (!curl)
        return {AppError(QStringLiteral("L’envoi d’e-mail n’a pas pu démarrer.")), true, {}};

    const QUrl url = server.value();
    Transfer transfer;
    transfer.message = &request.message;
    transfer.cancel = cancel;
    char errorBuffer[CURL_ERROR_SIZE] = {};
    const QByteArray urlText = url.toString(QUrl::FullyEncoded).toUtf8();
    const QByteArray user = request.user.toUtf8();
    const QByteArray password = request.password.toUtf8();
    const QByteArray from = '<' + request.from.toUtf8() + '>';
    const QByteArray caFile = request.caFile.toUtf8();
    std::unique_ptr<curl_slist, CurlDeleter> recipients(
        curl_slist_append(nullptr, ('<' + request.to.toUtf8() + '>').constData()));

    CURL* c = curl.get();
    curl_easy_setopt(c, CURLOPT_URL, urlText.constData());
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "smtp,smtps");
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, static_cast<long>(request.connectTimeoutSeconds));
    curl_easy_setopt(c, CURLOPT_TIMEOUT, static_cast<long>(request.transferTimeoutSeconds));
    switch (mailSecurity(url)) {
    case MailSecurity::ImplicitTls:
        break;
    case MailSecurity::StartTlsRequired:
        curl_easy_setopt(c, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
        break;
    case MailSecurity::StartTlsIfOffered:
        curl_easy_setopt(c, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_TRY));
        break;
    }
    if (!caFile.isEmpty())
        curl_easy_setopt(c, CURLOPT_CAINFO, caFile.constData());
    if (!user.isEmpty()) {
        curl_easy_setopt(c, CURLOPT_USERNAME, user.constData());
        curl_easy_setopt(c, CURLOPT_PASSWORD, password.constData());
    }
    curl_easy_setopt(c, CURLOPT_MAIL_FROM, from.constData());
    curl_easy_setopt(c, CURLOPT_MAIL_RCPT, recipients.get());
    curl_easy_setopt(c, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(c, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.message.size()));
    curl_easy_setopt(c, CURLOPT_READFUNCTION, readMessage);
    curl_easy_setopt(c, CURLOPT_READDATA, &transfer);
    // The debug hook is the only way to hear the server's words; nothing goes to stderr.
    curl_easy_setopt(c, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(c, CURLOPT_DEBUGFUNCTION, watchServer);
    curl_easy_setopt(c, CURLOPT_DEBUGDATA, &transfer);
    curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, progress);
    curl_easy_setopt(c, CURLOPT_XFERINFODATA, &transfer);

    const CURLcode code = curl_easy_perform(c);
    if (code == CURLE_OK)
        return {std::nullopt, false, QString::fromUtf8(transfer.lastReply)};
    return describe(code, QString::fromUtf8(transfer.lastReply), url, errorBuffer);
}

} // namespace vemira
