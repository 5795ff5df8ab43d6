#include "app/AppModel.h"
#include "app/AppModelParts.h"

namespace vemira {

// The AI connection check that comes before arming (and that the connections screen runs).

void AppModel::verifyAI(bool armAfter)
{
    if (m_call || m_checkingAI || m_preparingAudio || m_testingMicrophone)
        return;
    Result<std::optional<QString>> stored = d->keyStore.readKey();
    if (!stored || !stored.value()) {
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
    d->probeKey = *stored.value();
    d->probe->start(d->probeKey, m_model, m_voice);
}

bool AppModel::abandonCheck()
{
    if (!d->probe)
        return false;
    d->probe->onComplete = nullptr;
    d->probe->cancel();
    d->probe.reset();
    m_checkAfterWake = false;
    m_checkingAI = false;
    return true;
}

void AppModel::forgetAICheck()
{
    const bool wasVerified = m_aiVerified;
    const bool wasChecking = abandonCheck();
    m_aiVerified = false;
    if (wasChecking || wasVerified) {
        m_aiStatus = QStringLiteral("Réglages modifiés · connexion à vérifier");
        notifyReadiness();
    }
}

void AppModel::completeAICheck(const std::optional<QString>& failure, bool armAfter)
{
    // The check object may be destroyed from its own completion.
    d->probe.reset();
    m_checkingAI = false;
    m_aiVerified = !failure.has_value();
    m_aiStatus = failure ? *failure : AIConnectionCheck::successStatus();
    const bool afterWake = std::exchange(m_checkAfterWake, false);
    std::optional<QString> refused = failure;
    if (!refused && armAfter) {
        if (Result<SessionPlan> plan = validate(true); !plan)
            refused = plan.error().message();
    }
    if (refused) {
        m_error = *refused;
        if (afterWake)
            notRearmedAfterWake(*refused);
        return;
    }
    if (!armAfter)
        return;
    // The key file may have changed behind the check (the command-line tool writes it too).
    Result<std::optional<QString>> stored = d->keyStore.readKey();
    if (!stored || !stored.value() || *stored.value() != d->probeKey) {
        m_aiVerified = false;
        m_aiStatus = QStringLiteral("Clé enregistrée · connexion à vérifier");
        m_error = QStringLiteral("La clé a changé pendant la vérification. Vérifiez de nouveau "
                                 "la connexion avant d’activer le standard.");
        return;
    }
    m_error = QString();
    m_armed = true;
    setPhase(Phase::Listening);
    if (afterWake)
        event(QStringLiteral("Réveil : connexion à l’IA vérifiée, standard réactivé"));
}

void AppModel::cancelCheck()
{
    if (!abandonCheck())
        return;
    m_aiVerified = false;
    m_aiStatus = m_keyPresent ? QStringLiteral("Clé enregistrée · connexion à vérifier")
                              : QStringLiteral("Aucune clé enregistrée");
}

} // namespace vemira
