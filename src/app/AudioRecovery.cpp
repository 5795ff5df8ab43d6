#include "app/AppModel.h"
#include "app/AppModelParts.h"
#include "core/PlatformWording.h"

namespace vemira {

// The check made shortly after answering: the phone application may have moved the audio
// devices while it took the call, which stops the bridge's transport.
void AppModel::postAnswerCheck()
{
    if (!m_connected)
        return;
    if (d->audio->needsRestart()) {
        if (Status restarted = restartAudio()) {
            failAudio(QStringLiteral("Audio interrompu après décrochage : ") +
                      restarted->message());
            return;
        }
        event(QStringLiteral("Circuits audio réouverts après le décrochage"));
    }
    d->realtime->greet();
}

Status AppModel::restartAudio()
{
    if (!m_call)
        return std::nullopt;
    if (d->audio->captureRunning() && d->audio->playbackRunning())
        return d->audio->start(m_call->input.id, m_call->output.id, !m_call->phoneSession);
    return d->audio->resumeStoppedEngines();
}

bool AppModel::audioWatchdog()
{
    Conversation& call = *m_call;
    const QString flow = d->audio->flowStatus();
    m_audioDiagnostic = flow;
    if (!d->audio->needsRestart())
        return true;
    if (m_intervening) {
        // Never restart under the manager's voice: the manager takes the call back by hand.
        call.hangUpAtEnd = false;
        failAudio(PlatformWording::current().interventionInterrupted);
        return false;
    }
    if (call.audioRecoveryCount >= kMaxAudioRestarts) {
        const QString opening = call.phoneSession
                                    ? QStringLiteral("Le son de l’appel est interrompu.")
                                    : PlatformWording::current().computerAudioSilent;
        failAudio(opening + QStringLiteral(" ") + flow +
                  QStringLiteral(" La session a été arrêtée et l’audio disponible sauvegardé."));
        return false;
    }
    call.audioRecoveryCount += 1;
    event(QStringLiteral("Diagnostic avant relance : ") + flow);
    if (Status restarted = restartAudio()) {
        failAudio(QStringLiteral("Impossible de rétablir le son : ") + restarted->message());
        return false;
    }
    event(QStringLiteral("Transport audio relancé (") + QString::number(call.audioRecoveryCount) +
          QStringLiteral("/2)"));
    return true;
}

} // namespace vemira
