#include "ai/MessageRequest.h"

#include "ai/RealtimeClient.h"

#include <QJsonArray>
#include <algorithm>

namespace vemira {

namespace {

QLatin1String purposeKey()
{
    return QLatin1String("vemira");
}

QString purpose()
{
    return QStringLiteral("message");
}

QJsonObject textField(const QString& description)
{
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("string")},
                       {QStringLiteral("description"), description}};
}

QJsonObject messageTool()
{
    QJsonObject urgency = textField(QStringLiteral(
        "« Urgent » : danger ou dégât en cours (fuite active, panne de chauffage en hiver, "
        "sécurité) ; « Rapide » : à traiter dans les jours qui viennent ; « Normal » : le reste. "
        "Vide si rien ne permet d’en juger."));
    urgency.insert(QStringLiteral("enum"),
                   QJsonArray{QStringLiteral("Urgent"), QStringLiteral("Rapide"),
                              QStringLiteral("Normal"), QString()});
    const QJsonObject properties{
        {QStringLiteral("identity"),
         textField(QStringLiteral("Nom de l’interlocuteur (et société), tel qu’il l’a dit."))},
        {QStringLiteral("address"),
         textField(QStringLiteral(
             "Adresse et logement (bâtiment, étage, appartement), tels qu’ils ont été dits."))},
        {QStringLiteral("problem"), textField(QStringLiteral("Le problème signalé."))},
        {QStringLiteral("since"),
         textField(QStringLiteral("Depuis quand, avec les mots de l’interlocuteur."))},
        {QStringLiteral("urgency"), urgency},
        {QStringLiteral("callback"),
         textField(QStringLiteral("Numéro de rappel donné par l’interlocuteur, en chiffres."))},
        {QStringLiteral("summary"),
         textField(QStringLiteral("Une phrase en français qui résume l’appel."))},
    };
    QJsonArray required;
    for (auto it = properties.begin(); it != properties.end(); ++it)
        required.append(it.key());
    return QJsonObject{
        {QStringLiteral("type"), QStringLiteral("function")},
        {QStringLiteral("name"), MessageRequest::toolName()},
        {QStringLiteral("description"),
         QStringLiteral("Enregistre le message laissé par l’interlocuteur pour le gestionnaire.")},
        {QStringLiteral("parameters"),
         QJsonObject{{QStringLiteral("type"), QStringLiteral("object")},
                     {QStringLiteral("properties"), properties},
                     {QStringLiteral("required"), required},
                     {QStringLiteral("additionalProperties"), false}}}};
}

} // namespace

QString MessageRequest::toolName()
{
    return QStringLiteral("record_message");
}

QJsonObject MessageRequest::requestEvent()
{
    const QJsonObject response{
        {QStringLiteral("conversation"), QStringLiteral("none")},
        {QStringLiteral("output_modalities"), QJsonArray{QStringLiteral("text")}},
        {QStringLiteral("instructions"),
         QStringLiteral(
             "L’appel est terminé. Remplis le message pour le gestionnaire avec ce que "
             "l’interlocuteur a dit dans cette conversation, en appelant la fonction. "
             "N’invente rien et ne déduis rien : un renseignement que l’interlocuteur n’a pas "
             "donné reste une chaîne vide. Écris en français.")},
        {QStringLiteral("tools"), QJsonArray{messageTool()}},
        {QStringLiteral("tool_choice"),
         QJsonObject{{QStringLiteral("type"), QStringLiteral("function")},
                     {QStringLiteral("name"), toolName()}}},
        {QStringLiteral("max_output_tokens"), maxOutputTokens},
        {QStringLiteral("metadata"), QJsonObject{{purposeKey(), purpose()}}}};
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("response.create")},
                       {QStringLiteral("response"), response}};
}

bool MessageRequest::isAnswer(const QJsonObject& response)
{
    return response.value(QLatin1String("metadata")).toObject().value(purposeKey()) == purpose();
}

MessageRequest::Outcome MessageRequest::read(const QJsonObject& response)
{
    const QJsonArray output = response.value(QLatin1String("output")).toArray();
    for (const auto& value : output) {
        const QJsonObject item = value.toObject();
        if (item.value(QLatin1String("type")) != QLatin1String("function_call") ||
            item.value(QLatin1String("name")) != toolName())
            continue;
        const QJsonValue arguments = item.value(QLatin1String("arguments"));
        auto message = CallMessage::fromAnswer(arguments.toString().toUtf8());
        if (!arguments.isString() || !message)
            return Outcome{std::nullopt, unreadableLine()};
        return Outcome{std::move(message).value(), QString()};
    }
    const QString status = response.value(QLatin1String("status")).toString();
    return Outcome{std::nullopt,
                   QStringLiteral("Le modèle n’a pas rempli le message de l’appel (%1) : appel "
                                  "enregistré sans message.")
                       .arg(status.isEmpty() ? QStringLiteral("sans statut") : status)};
}

bool MessageRequest::worthAsking(const QList<TranscriptLine>& transcript)
{
    return std::any_of(transcript.begin(), transcript.end(), [](const TranscriptLine& line) {
        return line.speaker == Speaker::caller() && !line.text.trimmed().isEmpty();
    });
}

QString MessageRequest::timeoutLine()
{
    return QStringLiteral("Message de l’appel non reçu à temps : appel enregistré sans message.");
}

QString MessageRequest::unreadableLine()
{
    return QStringLiteral(
        "Message de l’appel illisible dans la réponse du modèle : appel enregistré sans message.");
}

QString MessageRequest::notAskedLine()
{
    return QStringLiteral("Session IA déjà fermée : appel enregistré sans message.");
}

MessageRequest::MessageRequest(RealtimeClient& client, Clock& clock, QObject* parent)
    : QObject(parent), m_client(&client), m_clock(clock)
{}

MessageRequest::~MessageRequest()
{
    cancel();
}

void MessageRequest::start(std::function<void(const Outcome&)> done)
{
    cancel();
    m_done = std::move(done);
    const quint64 round = ++m_round;
    if (!m_client || !m_client->acceptsRequests()) {
        QMetaObject::invokeMethod(
            this,
            [this, round] {
                if (round == m_round)
                    finish(Outcome{std::nullopt, notAskedLine()});
            },
            Qt::QueuedConnection);
        return;
    }
    m_client->onMessageResponse = [this, round](const QJsonObject& response) {
        if (round == m_round)
            finish(read(response));
    };
    m_timeout = m_clock.schedule(timeoutSeconds, this, [this, round] {
        if (round == m_round)
            finish(Outcome{std::nullopt, timeoutLine()});
    });
    m_client->requestMessage(requestEvent());
}

void MessageRequest::cancel()
{
    ++m_round;
    m_done = nullptr;
    m_timeout.reset();
    if (m_client)
        m_client->onMessageResponse = nullptr;
}

void MessageRequest::finish(const Outcome& outcome)
{
    auto done = std::exchange(m_done, nullptr);
    cancel();
    if (done)
        done(outcome);
}

} // namespace vemira
