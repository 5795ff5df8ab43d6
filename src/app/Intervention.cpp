#include "ai/RealtimeCallControl.h"
#include "app/AppModel.h"
#include "app/AppModelParts.h"

namespace vemira {

// The manager takes over a connected phone call with their own microphone and headset, and
// hands it back.
void AppModel::toggleIntervention()
{
    if (!(m_call && !m_call->ending && m_connected && m_call->phoneSession))
        return;
    Conversation& call = *m_call;
    if (m_intervening) {
        d->audio->stopIntervention();
        m_intervening = false;
        // No AI left to hand the caller back to: the manager's goodbye ends the call.
        if (call.aiGone) {
            event(QStringLiteral("Micro du gestionnaire fermé · fin de l’appel"));
            finish();
            return;
        }
        d->realtime->holdResponses(false);
        d->realtime->addSystemNote(realtime::managerSpokeNote());
        setPhase(Phase::InCall);
        appendToCurrent(QStringLiteral("Suivi"),
                        QStringLiteral("Fin de l’intervention du gestionnaire. Reprise de l’IA."));
        event(QStringLiteral("Micro du gestionnaire fermé · reprise de l’IA"));
        return;
    }

    // A headset plugged in since the last look must be found.
    refresh();
    const SoundDevice* microphone = nullptr;
    const SoundDevice* listening = nullptr;
    const QList<SoundDevice> devices = m_devices;
    for (const SoundDevice& device : devices) {
        if (!microphone && device.uid == m_interventionMicUID.value() && device.input)
            microphone = &device;
        if (!listening && device.uid == m_interventionOutputUID.value() && device.output)
            listening = &device;
    }
    const auto isCallDevice = [&call](const SoundDevice* device) {
        return device->id == call.input.id || device->id == call.output.id;
    };
    if (!microphone || !listening || isCallDevice(microphone) || isCallDevice(listening)) {
        m_error = QStringLiteral("Choisissez votre micro et votre casque ou haut-parleur dans "
                                 "Connexions → Intervention humaine.");
        return;
    }
    if (Status started =
            d->audio->startIntervention(microphone->id, listening->id, call.input.id)) {
        m_error = started->message();
        return;
    }
    m_intervening = true;
    // The AI stops talking, and what it would still say is neither played nor recorded.
    d->realtime->holdResponses(true);
    setPhase(Phase::Intervention, QString(), m_detail);
    appendToCurrent(
        QStringLiteral("Suivi"),
        QStringLiteral("Intervention du gestionnaire : voix de l’IA suspendue. Cette partie est "
                       "conservée dans l’audio si l’enregistrement est activé ; elle n’est pas "
                       "transcrite automatiquement."));
    event(QStringLiteral("Micro du gestionnaire ouvert vers l’appelant"));
}

} // namespace vemira
