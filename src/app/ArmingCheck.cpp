#include "app/AppModel.h"
#include "app/AppModelParts.h"

namespace vemira {

// The AI connection check that comes before arming (and that the connections screen runs).

void AppModel::verifyAI(bool armAfter)
{
    if (m_call || m_checkingAI || m_preparingAudio || m_testingMicrophone)
        return;
    Result<std::optional<QString>> stored = d->keyStore.read();
    if (!stored || !stored.value() || stored.value()->trimmed().isEmpty()) {
        setError(QStringLiteral(
            "Aucune clé n’est enregistrée. Saisissez votre clé existante dans Connexions."));
        return;
    }
    m_checkingAI = true;
    m_aiVerified = false;
    m_aiStatus = QStringLiteral("Vérification de la connexion…");

    d->probe = std::make_unique<AIConnectionCheck>(m_clock);
    QPointer<AppModel> self(this);
    d->probe->onComplete = [self, armAfter](const std::optional<QString>& failure) {
        if (self)
            self->completeAICheck(failure, armAfter);
    };
    d->probe->start(*stored.value(), m_model, m_voice);
}

void AppModel::completeAICheck(const std::optional<QString>& failure, bool armAfter)
{
    // The check object may be destroyed from its own completion.
    d->probe.reset();
    m_checkingAI = false;
    m_aiVerified = !failure.has_value();
    m_aiStatus = failure ? *failure : AIConnectionCheck::successStatus();
    notifyReadiness();
    if (failure) {
        m_error = *failure;
        return;
    }
    if (!armAfter)
        return;
    Result<SessionPlan> plan = validate(true);
    if (!plan) {
        m_error = plan.error().message();
        return;
    }
    m_error = QString();
    m_armed = true;
    setPhase(Phase::Listening);
}

} // namespace vemira
