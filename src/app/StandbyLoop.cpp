#include "app/AppModel.h"
#include "app/AppModelParts.h"
#include "core/PlatformWording.h"

#include <QPointer>

namespace vemira {

// --- Phase and what the user reads --------------------------------------------------------

void AppModel::setPhase(Phase phase, const QString& status, const QString& detail)
{
    QString ownStatus;
    QString ownDetail;
    switch (phase) {
    case Phase::Paused:
        ownStatus = QStringLiteral("Standard en pause");
        ownDetail = QStringLiteral("Activez le standard pour répondre aux appels.");
        break;
    case Phase::Listening:
    case Phase::Ringing:
        ownStatus = QStringLiteral("À l’écoute des appels");
        ownDetail = QStringLiteral("Décrochage après %1 secondes, lorsque l’IA est prête.")
                        .arg(d->rules.decide(QString(), m_clock.now()).ringSeconds);
        break;
    case Phase::CoolDown:
        ownStatus = QStringLiteral("À l’écoute des appels");
        ownDetail = PlatformWording::current().conversationKept;
        break;
    case Phase::Connecting:
        ownStatus = QStringLiteral("Connexion à Vemira…");
        ownDetail = QStringLiteral("Préparation de la conversation");
        break;
    case Phase::InCall:
    case Phase::Intervention:
    case Phase::Testing: {
        ownStatus = QStringLiteral("Conversation en cours");
        ownDetail = (m_call && m_call->phoneSession) ? QStringLiteral("Décrochage demandé")
                                                     : QStringLiteral("Essai audio démarré");
        if (m_call && m_call->recorder)
            ownDetail += QStringLiteral(" · Enregistrement audio actif");
        break;
    }
    }
    m_phase = phase;
    m_status = status.isNull() ? ownStatus : status;
    m_detail = detail.isNull() ? ownDetail : detail;
}

// --- The standby loop ----------------------------------------------------------------

void AppModel::tick()
{
    if (m_guidedSetup)
        m_guidedSetup->resumeSetupIfReady();
    m_accessibility = d->dependencies.accessibility->isTrusted();
    if (!m_call)
        refreshPhoneApplication();
    if (m_observingRelay && m_guidedSetup)
        m_guidedSetup->observeRelay();
    ageRelayEvidence();

    // Opening hours begin and end while the loop runs.
    if (const QString rule = d->rules.inForce(m_clock.now()); rule != m_answeringRule) {
        m_answeringRule = rule;
        if (m_phase == Phase::Listening)
            setPhase(Phase::Listening);
    }

    checkHangUp();

    const double now = m_clock.uptime();
    if (now >= m_nextRetention)
        applyRecordingRetention();
    if (m_call) {
        conversationTick(now);
        return; // one call at a time
    }
    standbyTick(now);
}

void AppModel::applyPhoneChoice()
{
    d->phoneChoicePending = false;
    AppDependencies& deps = d->dependencies;
    if (deps.phoneApplicationsChosen) {
        event(QStringLiteral("Application de téléphonie choisie en ligne de commande : le réglage "
                             "s’appliquera au prochain démarrage."));
        return;
    }
    QString watched = QStringLiteral("toutes les applications connues");
    if (m_phoneApp.value().isEmpty()) {
        deps.phoneApplications = d->everyPhoneApplication;
    } else {
        const std::vector<SoftphoneProfile> chosen = softphones::chosen(m_phoneApp);
        deps.phoneApplications = softphones::applicationsOf(chosen);
        QStringList names;
        for (const SoftphoneProfile& profile : chosen)
            names.append(profile.id == QLatin1String("standard") ? m_phoneApp.value()
                                                                 : profile.name);
        watched = names.join(QStringLiteral(", "));
    }
    d->phone =
        std::make_unique<PhoneAutomation>(*deps.accessibility, m_clock, deps.phoneApplications);
    m_ringSince.reset();
    event(QStringLiteral("Application de téléphonie surveillée : ") + watched);
    refresh();
}

void AppModel::standbyTick(double now)
{
    if (!m_armed)
        return;
    if (!m_accessibility) {
        m_armed = false;
        m_ringSince.reset();
        const QString why = QStringLiteral("L’autorisation Accessibilité a été retirée.");
        m_error = why;
        event(why);
        setPhase(Phase::Paused, QStringLiteral("Une vérification est nécessaire"));
        stoppedUnasked(why, QStringLiteral("Rendez à Vemira l’autorisation Accessibilité dans les "
                                           "réglages du système, puis réactivez le standard."));
        return;
    }
    if (!(now > m_cooldownUntil))
        return;
    if (m_phase == Phase::CoolDown)
        setPhase(Phase::Listening, QString(), m_detail);

    std::optional<IncomingCall> incoming = d->phone->incoming();
    if (!incoming) {
        // Picked up on the phone while it rang here: the owner's call, not Vemira's.
        if (m_ringSince && d->phone->hasActiveCall())
            event(QStringLiteral("Appel de ") + d->ringCaller +
                  QStringLiteral(" décroché sur le téléphone : Vemira ne l’enregistre pas"));
        m_ringSince.reset();
        if (m_phase == Phase::Ringing)
            setPhase(Phase::Listening, m_status, m_detail);
        return;
    }
    if (!m_ringSince || !d->ringDecision) {
        m_ringSince = now;
        reloadAnsweringRules();
        d->ringCaller = incoming->caller;
        d->ringDecision = d->rules.decide(incoming->caller, m_clock.now());
        if (d->ringDecision->answer) {
            setPhase(Phase::Ringing, QString(),
                     QStringLiteral("Appel entrant · ") + incoming->caller);
        } else {
            // Logged once: the call rings on, untouched, until it stops.
            const QString line =
                AnsweringRules::leftRingingLine(incoming->caller, *d->ringDecision);
            event(line);
            setPhase(Phase::Ringing, QString(), line);
        }
    }
    if (d->ringDecision->answer &&
        now - *m_ringSince >= std::max(kRingConfirmation, d->ringDecision->ringSeconds)) {
        d->ringDecision.reset();
        m_ringSince.reset();
        QPointer<AppModel> self(this);
        IncomingCall call = *incoming;
        begin(true, call.caller, [self, call]() -> Status {
            if (!self)
                return std::nullopt;
            if (Status failed = self->d->phone->answer(call))
                return failed;
            self->routePhoneAudio(call.button ? call.button->processId() : 0);
            return std::nullopt;
        });
    }
}

const AnsweringRules& AppModel::answeringRules() const
{
    return d->rules;
}

Status AppModel::setAnsweringRules(const AnsweringRules::Texts& texts)
{
    Result<AnsweringRules> rules = AnsweringRules::parse(texts);
    if (!rules)
        return rules.error();
    d->settings.setAnsweringRules(rules.value());
    reloadAnsweringRules();
    event(QStringLiteral("Règles de réponse enregistrées · ") + m_answeringRule.value());
    return std::nullopt;
}

void AppModel::reloadAnsweringRules()
{
    d->settings.sync();
    const AnsweringRules rules = d->settings.answeringRules();
    const bool changed = !(rules == d->rules);
    d->rules = rules;
    m_answeringRule = d->rules.inForce(m_clock.now());
    if (changed) {
        if (m_phase == Phase::Listening)
            setPhase(Phase::Listening);
        Q_EMIT answeringRulesChanged();
    }
}

void AppModel::ageRelayEvidence()
{
    if (m_lastRelayEvidence.value().isNull() || m_relayEvidenceAged)
        return;
    if (m_lastRelayEvidence.value().secsTo(m_clock.now()) > 60) {
        m_relayEvidenceAged = true;
        m_relayStatus = QStringLiteral("Dernier appel détecté à ") +
                        shortTime(m_lastRelayEvidence.value()) +
                        QStringLiteral(" · connexion actuelle non confirmée");
    }
}

void AppModel::toggleArmed()
{
    if (m_armed) {
        m_armed = false;
        m_ringSince.reset();
        if (m_call)
            m_status = QStringLiteral("Conversation en cours");
        else
            setPhase(Phase::Paused);
        return;
    }
    if (m_call)
        return;
    Result<SessionPlan> plan = validate(true);
    if (!plan) {
        m_error = plan.error().message();
        return;
    }
    saveSettings();
    verifyAI(true);
}

// --- Sleep and wake ----------------------------------------------------------------------

void AppModel::willSleep()
{
    m_armedAtSleep = m_armed || m_armedAtSleep;
    m_armed = false;
    cancelCheck();
    endConversation(PlatformWording::current().pausedAsleep);
    // The machine stops soon: no waiting for the wind-down.
    if (m_call)
        finish();
}

void AppModel::woke()
{
    const bool wasArmed = std::exchange(m_armedAtSleep, false);
    if (!wasArmed || !m_rearmOnWake || m_armed || m_call)
        return;
    m_checkAfterWake = true;
    verifyAI(true);
    // A check that could not even start (no key) is an outcome too.
    if (!m_checkingAI) {
        m_checkAfterWake = false;
        notRearmedAfterWake(m_error);
    }
}

void AppModel::notRearmedAfterWake(const QString& why)
{
    event(QStringLiteral("Réveil : le standard n’a pas pu être réactivé. ") + why);
    stoppedUnasked(QStringLiteral("Au réveil de l’ordinateur, le standard n’a pas pu être "
                                  "réactivé : ") +
                       why,
                   QStringLiteral("Ouvrez Vemira, corrigez la cause indiquée puis réactivez le "
                                  "standard."));
}

void AppModel::willPowerOff()
{
    m_armedAtSleep = false;
    m_armed = false;
    cancelCheck();
    endConversation(QStringLiteral("Standard arrêté · extinction de l’ordinateur"));
    // The machine stops soon: no waiting for the wind-down.
    if (m_call)
        finish();
}

} // namespace vemira
