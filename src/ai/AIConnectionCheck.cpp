#include "ai/AIConnectionCheck.h"

#include "ai/RealtimeClient.h"
#include "ai/RealtimeProtocol.h"

namespace vemira {

QString AIConnectionCheck::instructions()
{
    return QStringLiteral("Vérification de connexion. Ne génère aucune réponse.");
}

QString AIConnectionCheck::timeoutMessage()
{
    return QStringLiteral(
        "L’IA ne répond pas. Vérifiez la clé, l’accès API et la connexion Internet.");
}

QString AIConnectionCheck::successStatus()
{
    return QStringLiteral("Connexion IA vérifiée");
}

QString AIConnectionCheck::refusedMessage(const QString& reason)
{
    return QStringLiteral("La clé est acceptée, mais OpenAI refuse de produire une réponse (") +
           reason +
           QStringLiteral("). Vérifiez les limites et la facturation de votre compte OpenAI.");
}

AIConnectionCheck::AIConnectionCheck(Clock& clock) : m_clock(clock) {}

AIConnectionCheck::~AIConnectionCheck()
{
    cancel();
}

void AIConnectionCheck::start(const QString& key, const QString& model, const QString& voice)
{
    if (running())
        return;
    m_probe = std::make_unique<RealtimeClient>(m_clock);
    // The probe's usage goes to no one: onUsage stays empty.
    RealtimeClient* probe = m_probe.get();
    // A key without credit still opens sessions: only a response shows it.
    m_probe->onReady = [probe] { probe->requestProbeResponse(); };
    m_probe->onResponseDone = [this, model](const RealtimeClient::ResponseOutcome& outcome) {
        if (outcome.status != QLatin1String("failed"))
            complete(std::nullopt);
        else if (realtime::meansUnknownModel(outcome.reason))
            complete(realtime::unknownModelMessage(model));
        else
            complete(outcome.noCredit ? realtime::creditExhaustedMessage()
                                      : refusedMessage(outcome.reason));
    };
    m_probe->onError = [this](const QString& message) { complete(message); };
    // A retired or unknown model is told apart from a refused key.
    m_probe->onServerError = [this, model](const std::optional<QString>& code,
                                           const QString& message) {
        complete(code && realtime::meansUnknownModel(*code) ? realtime::unknownModelMessage(model)
                                                            : message);
    };
    m_timeout = m_clock.schedule(timeoutSeconds, nullptr, [this] { complete(timeoutMessage()); });
    m_probe->connect(key, model, voice, instructions());
}

void AIConnectionCheck::cancel()
{
    m_timeout.reset();
    if (!m_probe)
        return;
    RealtimeClient* probe = m_probe.release();
    probe->onReady = nullptr;
    probe->onResponseDone = nullptr;
    probe->onError = nullptr;
    probe->onServerError = nullptr;
    probe->close();
    // We may be inside one of the probe's own callbacks: let it unwind first.
    probe->deleteLater();
}

void AIConnectionCheck::complete(const std::optional<QString>& failure)
{
    // Only the first completion counts: cancel() clears the probe's callbacks and the timer.
    if (!running())
        return;
    cancel();
    if (onComplete) {
        auto callback = onComplete;
        callback(failure);
    }
}

} // namespace vemira
