#include "ai/RealtimeProtocol.h"

#include "ai/WireBase64.h"
#include "records/ModelCatalogue.h"

#include <QHostAddress>
#include <QJsonArray>
#include <QUrlQuery>
#include <algorithm>
#include <iterator>

namespace vemira::realtime {

QString aiSpeaker()
{
    return QStringLiteral("Vemira");
}
QString callerSpeaker()
{
    return QStringLiteral("Interlocuteur");
}

QString receiveFailedMessage()
{
    return QStringLiteral(
        "Connexion à l’IA interrompue. Vérifiez la clé, le modèle et votre accès Internet.");
}

QString sendFailedMessage()
{
    return QStringLiteral("Envoi audio interrompu. Vérifiez la connexion Internet.");
}

QString queueFullMessage()
{
    return QStringLiteral("Connexion trop lente pour maintenir la conversation audio.");
}

QString certificateRefusedMessage(const QList<QSslError>& errors)
{
    QString why = QStringLiteral("son certificat n’est pas valide");
    switch (errors.isEmpty() ? QSslError::NoError : errors.first().error()) {
    case QSslError::SelfSignedCertificate:
    case QSslError::SelfSignedCertificateInChain:
    case QSslError::UnableToGetLocalIssuerCertificate:
    case QSslError::UnableToGetIssuerCertificate:
    case QSslError::UnableToVerifyFirstCertificate:
    case QSslError::CertificateUntrusted:
        why = QStringLiteral("son certificat n’est signé par aucune autorité reconnue");
        break;
    case QSslError::HostNameMismatch:
        why = QStringLiteral("son certificat est celui d’un autre serveur");
        break;
    case QSslError::CertificateExpired:
    case QSslError::CertificateNotYetValid:
        why = QStringLiteral("son certificat n’est pas valide à la date de cet ordinateur");
        break;
    default:
        break;
    }
    return QStringLiteral("Connexion à l’IA refusée : le serveur n’a pas pu être authentifié (") +
           why +
           QStringLiteral("). Vérifiez la date de l’ordinateur ; un proxy ou un antivirus qui "
                          "inspecte les connexions peut aussi en être la cause.");
}

QString serverErrorMessage(const QString& code)
{
    return QStringLiteral("L’IA signale une erreur (") + code +
           QStringLiteral("). Vérifiez votre configuration.");
}

QString failedResponseNotice(const QString& reason)
{
    return QStringLiteral("Réponse de l’IA en échec (") + reason +
           QStringLiteral(") : l’IA n’a rien dit pour ce tour.");
}

QString creditExhaustedMessage()
{
    return QStringLiteral("Crédit OpenAI épuisé : l’IA ne peut plus répondre. Ajoutez du crédit "
                          "ou vérifiez la facturation de votre compte OpenAI.");
}

bool meansNoCredit(const QString& codeOrType)
{
    static const QStringList codes{
        QStringLiteral("insufficient_quota"), QStringLiteral("billing_hard_limit_reached"),
        QStringLiteral("billing_not_active"), QStringLiteral("account_deactivated")};
    return codes.contains(codeOrType);
}

bool meansUnknownModel(const QString& code)
{
    return code == QLatin1String("model_not_found") || code == QLatin1String("invalid_model");
}

QString unknownModelMessage(const QString& model)
{
    const RealtimeModelInfo* info = ModelCatalogue::find(model);
    if (info && info->shutdown && !info->successor.isEmpty())
        return QStringLiteral("OpenAI refuse le modèle ") + model +
               QStringLiteral(" (arrêt annoncé le ") + frenchDate(*info->shutdown) +
               QStringLiteral(") ; la clé n’est pas en cause. Choisissez ") + info->successor +
               QStringLiteral(" pour le remplacer, dans Agent ou Connexions.");
    return QStringLiteral("OpenAI refuse le modèle ") + model +
           QStringLiteral(" (retiré, mal écrit ou non ouvert à ce compte) ; la clé n’est pas en "
                          "cause. Choisissez par exemple ") +
           ModelCatalogue::defaultModel() + QStringLiteral(", dans Agent ou Connexions.");
}

QString inaudibleText()
{
    return QStringLiteral("[inaudible]");
}

QString cutMark()
{
    return QStringLiteral("…");
}

QString defaultHost()
{
    return QStringLiteral("api.openai.com");
}

namespace {

bool isLoopbackHost(const QString& host)
{
    if (host.compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0)
        return true;
    const QHostAddress address(host);
    return !address.isNull() && address.isLoopback();
}

AppError refused(const QString& why)
{
    return AppError(QStringLiteral("Adresse du service temps réel refusée : ") + why);
}

} // namespace

Result<QUrl> endpoint(const QString& model, const QString& overrideAddress)
{
    QUrl url;
    url.setScheme(QStringLiteral("wss"));
    url.setHost(defaultHost());
    const QString trimmed = overrideAddress.trimmed();
    if (!trimmed.isEmpty()) {
        const QUrl given(trimmed, QUrl::StrictMode);
        if (!given.isValid() || given.host().isEmpty())
            return refused(trimmed);
        const QString scheme = given.scheme().toLower();
        if (scheme != QLatin1String("wss") && scheme != QLatin1String("ws"))
            return refused(trimmed);
        // Only scheme, host and port are taken: anything else would silently be dropped.
        if (!given.userInfo().isEmpty() || given.hasQuery() || given.hasFragment() ||
            (!given.path().isEmpty() && given.path() != QLatin1String("/")))
            return refused(trimmed);
        // The key travels in a header: never in clear beyond this machine.
        if (scheme == QLatin1String("ws") && !isLoopbackHost(given.host()))
            return refused(trimmed);
        url.setScheme(scheme);
        url.setHost(given.host());
        url.setPort(given.port());
    }
    url.setPath(QStringLiteral("/v1/realtime"));
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("model"), model);
    url.setQuery(query);
    return url;
}

namespace {

QJsonObject turnDetection(bool createResponses)
{
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("server_vad")},
                       {QStringLiteral("silence_duration_ms"), 650},
                       {QStringLiteral("prefix_padding_ms"), 300},
                       {QStringLiteral("interrupt_response"), true},
                       {QStringLiteral("create_response"), createResponses}};
}

// The provider answers a response's own instructions instead of the session's: a turn asked
// with its own must carry the whole of them, or it forgets the business and its rules.
QJsonObject responseWithSessionInstructions(const QString& sessionInstructions, const QString& turn)
{
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("response.create")},
                       {QStringLiteral("response"),
                        QJsonObject{{QStringLiteral("instructions"),
                                     sessionInstructions + QLatin1Char('\n') + turn}}}};
}

} // namespace

QJsonObject sessionConfiguration(const QString& model, const QString& voice,
                                 const QString& instructions)
{
    const QJsonObject pcm{{QStringLiteral("type"), QStringLiteral("audio/pcm")},
                          {QStringLiteral("rate"), sampleRate}};
    const QJsonObject input{
        {QStringLiteral("format"), pcm},
        {QStringLiteral("transcription"),
         QJsonObject{{QStringLiteral("model"), ModelCatalogue::transcriptionModel()},
                     {QStringLiteral("language"), QStringLiteral("fr")}}},
        {QStringLiteral("turn_detection"), turnDetection(true)}};
    const QJsonObject output{{QStringLiteral("format"), pcm}, {QStringLiteral("voice"), voice}};
    const QJsonObject session{
        {QStringLiteral("type"), QStringLiteral("realtime")},
        {QStringLiteral("model"), model},
        {QStringLiteral("output_modalities"), QJsonArray{QStringLiteral("audio")}},
        {QStringLiteral("instructions"), instructions},
        {QStringLiteral("audio"),
         QJsonObject{{QStringLiteral("input"), input}, {QStringLiteral("output"), output}}}};
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("session.update")},
                       {QStringLiteral("session"), session}};
}

QString greetingText()
{
    return QStringLiteral("Commence par une courte salutation en français. Accueille au nom de "
                          "l’entreprise indiquée dans tes consignes puis demande comment tu peux "
                          "aider. N’ajoute pas d’annonce sur ta nature ou sur l’enregistrement.");
}

QJsonObject greetingRequest(const QString& sessionInstructions)
{
    return responseWithSessionInstructions(sessionInstructions, greetingText());
}

QString goodbyeText()
{
    return QStringLiteral("La durée maximale de l’appel est atteinte. En une phrase courte, "
                          "remercie l’interlocuteur, dis-lui que son message est transmis et "
                          "prends congé poliment.");
}

QJsonObject goodbyeRequest(const QString& sessionInstructions)
{
    return responseWithSessionInstructions(sessionInstructions, goodbyeText());
}

QJsonObject turnTakingUpdate(bool createResponses)
{
    const QJsonObject input{{QStringLiteral("turn_detection"), turnDetection(createResponses)}};
    return QJsonObject{
        {QStringLiteral("type"), QStringLiteral("session.update")},
        {QStringLiteral("session"),
         QJsonObject{{QStringLiteral("type"), QStringLiteral("realtime")},
                     {QStringLiteral("audio"), QJsonObject{{QStringLiteral("input"), input}}}}}};
}

QJsonObject instructionsUpdate(const QString& instructions)
{
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("session.update")},
                       {QStringLiteral("session"),
                        QJsonObject{{QStringLiteral("type"), QStringLiteral("realtime")},
                                    {QStringLiteral("instructions"), instructions}}}};
}

QJsonObject probeResponseRequest()
{
    const QJsonObject message{
        {QStringLiteral("type"), QStringLiteral("message")},
        {QStringLiteral("role"), QStringLiteral("user")},
        {QStringLiteral("content"),
         QJsonArray{QJsonObject{{QStringLiteral("type"), QStringLiteral("input_text")},
                                {QStringLiteral("text"), QStringLiteral("ok")}}}}};
    return QJsonObject{
        {QStringLiteral("type"), QStringLiteral("response.create")},
        {QStringLiteral("response"),
         QJsonObject{{QStringLiteral("conversation"), QStringLiteral("none")},
                     {QStringLiteral("output_modalities"), QJsonArray{QStringLiteral("text")}},
                     {QStringLiteral("max_output_tokens"), 1},
                     {QStringLiteral("instructions"), QStringLiteral("Réponds ok.")},
                     {QStringLiteral("input"), QJsonArray{message}}}}};
}

QString audioAppendFrame(const QByteArray& pcm)
{
    static constexpr char16_t head[] = u"{\"type\":\"input_audio_buffer.append\",\"audio\":\"";
    static constexpr char16_t tail[] = u"\"}";
    constexpr qsizetype headSize = std::size(head) - 1;
    constexpr qsizetype tailSize = std::size(tail) - 1;
    const qsizetype encoded = base64Size(pcm.size());
    QString frame(headSize + encoded + tailSize, Qt::Uninitialized);
    char16_t* out = reinterpret_cast<char16_t*>(frame.data());
    std::copy_n(head, headSize, out);
    encodeBase64(pcm, out + headSize);
    std::copy_n(tail, tailSize, out + headSize + encoded);
    return frame;
}

} // namespace vemira::realtime
