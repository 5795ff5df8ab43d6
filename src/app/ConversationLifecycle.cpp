#include "app/AppModel.h"
#include "app/AppModelParts.h"
#include "core/PlatformWording.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>

namespace vemira {

namespace {

QString callKind(bool phoneMode)
{
    return phoneMode ? QStringLiteral("Appel") : QStringLiteral("Essai");
}

QString keptDetail()
{
    return PlatformWording::current().conversationKept;
}

const QString kNeedsCheck = QStringLiteral("Une vérification est nécessaire");
const QString kLimitReached =
    QStringLiteral("La conversation a atteint la limite de 20 minutes et le standard s’est mis en "
                   "pause.");
const QString kRearm = QStringLiteral("Réactivez le standard dans Vemira.");
const QString kCheckAndRearm =
    QStringLiteral("Ouvrez Vemira, corrigez la cause indiquée puis réactivez le standard.");

} // namespace

// --- Start ------------------------------------------------------------------------------

void AppModel::begin(bool phoneMode, const QString& caller, std::function<Status()> action)
{
    if (m_call)
        return;
    Result<SessionPlan> plan = validate(phoneMode);
    if (!plan) {
        m_error = plan.error().message();
        return;
    }
    m_audioDiagnostic = QStringLiteral("Ouverture des circuits audio…");
    saveSettings();

    m_call = std::make_unique<Conversation>(
        phoneMode, CallRecord::create(m_clock.now(), caller, callKind(phoneMode)), m_clock.uptime(),
        plan.value().input, plan.value().output);
    Conversation& call = *m_call;
    call.awaitingAnswer = phoneMode && action != nullptr;
    const QUuid generation = call.generation;
    // Runs on the capture thread. The model outlives the bridge's callbacks (its destructor
    // stops the bridge first), and a queued task dies with the model.
    d->audio->onPCM = [this, generation](const QByteArray& pcm) {
        d->mailbox.post([this, generation, pcm] {
            if (m_call && m_call->generation == generation)
                d->realtime->append(pcm);
        });
    };

    m_busy = true;
    m_connected = false;
    Q_EMIT currentChanged();
    setPhase(Phase::Connecting);

    call.readyAction = [this, action = std::move(action)] { readyStep(action); };
    d->realtime->connect(plan.value().key, m_model, m_voice, instructions());

    call.readinessTimeout = m_clock.schedule(kReadinessTimeout, this, [this, generation] {
        if (m_call && m_call->generation == generation && !m_connected)
            fail(QStringLiteral("L’IA n’a pas répondu dans les 15 secondes. Aucun décrochage "
                                "automatique effectué."));
    });
}

void AppModel::sessionReady()
{
    if (!m_call)
        return;
    m_call->readinessTimeout.reset();
    std::function<void()> action = std::move(m_call->readyAction);
    m_call->readyAction = nullptr;
    if (action)
        action();
}

void AppModel::readyStep(const std::function<Status()>& action)
{
    Conversation& call = *m_call;
    const QUuid generation = call.generation;
    if (m_recordingEnabled) {
        const QString path = QDir(recordingsFolder())
                                 .filePath(QStringLiteral("Appel-") + uuidText(call.record.id) +
                                           QStringLiteral(".wav"));
        Result<std::unique_ptr<CallAudioRecorder>> recorder = CallAudioRecorder::create(path);
        if (recorder) {
            call.recorder = std::move(recorder.value());
        } else {
            call.record.recordingError = recorder.error().message();
            Q_EMIT currentChanged();
        }
    }
    d->audio->setRecorder(call.recorder);
    d->audio->setVoiceEQ(d->voiceEQ);

    if (Status started = d->audio->start(call.input.id, call.output.id, !call.phoneSession)) {
        failAudio(started->message());
        return;
    }
    // Only now may the caller be connected: the audio path is open.
    if (action) {
        if (Status answered = action()) {
            // The offer went away while the AI connected: the caller gave up, or the owner
            // picked up.
            if (!d->phone->incoming() && d->phone->hasActiveCall())
                ownerAnswered();
            else if (!d->phone->incoming())
                missedCall();
            else
                fail(answered->message());
            return;
        }
    }
    if (!m_call || m_call->generation != generation)
        return;
    call.awaitingAnswer = false;
    call.answered = call.phoneSession;

    m_connected = true;
    setPhase(call.phoneSession ? Phase::InCall : Phase::Testing);
    event(call.phoneSession ? QStringLiteral("Décrochage demandé")
                            : QStringLiteral("Essai audio démarré"));
    // From now on a crash must not lose the call: its record is on disk, kept up to date.
    if (Status failed = d->provisional->open(call.record))
        event(failed->message());

    call.postAnswerCheck = m_clock.schedule(kPostAnswerCheck, this, [this, generation] {
        if (m_call && m_call->generation == generation)
            postAnswerCheck();
    });
}

// --- Under way --------------------------------------------------------------------------

void AppModel::conversationTick(double now)
{
    Conversation& call = *m_call;
    if (call.ending)
        return;
    if (call.awaitingAnswer) {
        // Looked at while the AI connects: a caller who gives up is a missed call, a call
        // picked up on the phone is the owner's. One reading of a busy softphone may find
        // nothing, so the offer must stay gone as long as a call.
        if (d->phone->incoming())
            call.missingActive = 0;
        else if (d->phone->hasActiveCall())
            ownerAnswered();
        else if (++call.missingActive >= kLostCallTicks)
            missedCall();
        return;
    }
    if (m_connected && !audioWatchdog())
        return;
    if (now - call.started > kConversationLimit && !call.aiGone) {
        // The limit bounds what the AI costs: under the manager's voice only the AI leaves.
        if (m_intervening) {
            aiLeaves(QStringLiteral("Limite de 20 minutes atteinte."),
                     QStringLiteral("Limite de 20 minutes atteinte"), kRearm);
            return;
        }
        // A caller on the line hears a goodbye before the line is closed.
        const bool goodbye = m_connected && call.phoneSession;
        if (goodbye && !call.goodbyeAsked) {
            call.goodbyeAsked = now;
            d->realtime->sayGoodbye();
            event(QStringLiteral("Limite de 20 minutes atteinte · au revoir de l’IA"));
        }
        const bool played = call.goodbyeSaid && d->audio->health().snapshot().pending == 0;
        if (!goodbye || played || now - *call.goodbyeAsked >= kGoodbyeBound) {
            const bool wasArmed = m_armed;
            m_armed = false;
            endConversation(QStringLiteral("Limite de 20 minutes atteinte"));
            if (wasArmed)
                stoppedUnasked(kLimitReached, kRearm);
            return;
        }
    }
    if (!(m_connected && call.phoneSession))
        return;
    if (d->phone->hasActiveCall()) {
        call.sawActiveCall = true;
        call.missingActive = 0;
    } else if (!call.sawActiveCall) {
        if (now - call.started <= kActiveCallConfirmation)
            return;
        // Neither the call nor its offer any more: the caller left right after the answer.
        if (!d->phone->incoming())
            missedCall();
        else
            fail(QStringLiteral(
                "Le décrochage a été demandé, mais la présence d’un appel actif n’a pas pu "
                "être confirmée. L’audio disponible a été sauvegardé."));
    } else {
        // One missed reading is often a redraw of the phone's window, not a hang-up.
        call.missingActive += 1;
        if (call.missingActive >= kLostCallTicks) {
            call.hangUpAtEnd = false;
            finish();
        }
    }
}

// --- End --------------------------------------------------------------------------------

void AppModel::failAudio(const QString& message)
{
    if (m_call) {
        if (m_call->phoneSession)
            m_routingConfirmed = false;
        else
            m_macAudioVerified = false;
    }
    fail(message);
}

// AI-side failures (no answer in time, a server error, a closed socket) and phone-side ones
// say nothing about the sound path: its proof stays.
void AppModel::fail(const QString& message)
{
    const bool wasArmed = m_armed;
    m_armed = false;
    endConversation(kNeedsCheck);
    m_error = message;
    event(message);
    if (wasArmed)
        stoppedUnasked(message, kCheckAndRearm);
}

void AppModel::aiFailed(const QString& message)
{
    if (m_call && m_call->ending) {
        event(message);
        finish();
        return;
    }
    if (m_call && m_intervening) {
        aiLeaves(message, kNeedsCheck, kCheckAndRearm);
        return;
    }
    fail(message);
}

void AppModel::aiLeaves(const QString& why, const QString& endStatus, const QString& whatToDo)
{
    Conversation& call = *m_call;
    call.aiGone = true;
    call.endStatus = endStatus;
    d->realtime->close();
    appendToCurrent(QStringLiteral("Suivi"),
                    QStringLiteral("L’IA a quitté l’appel ; le gestionnaire reste en ligne."));
    const bool wasArmed = m_armed;
    m_armed = false;
    m_error = why;
    event(why + QStringLiteral(" L’IA a quitté l’appel, votre intervention continue."));
    if (wasArmed)
        stoppedUnasked(why, whatToDo);
}

void AppModel::stoppedUnasked(const QString& why, const QString& whatToDo)
{
    d->notices->alert(QStringLiteral("Vemira · Standard arrêté"),
                      why + QStringLiteral(" Le standard ne répond plus aux appels."), whatToDo);
}

void AppModel::missedCall()
{
    Conversation& call = *m_call;
    call.hangUpAtEnd = false;
    const QString line =
        QStringLiteral("Appel manqué : ") + call.record.caller + QStringLiteral(" a raccroché");
    call.endDetail = line;
    event(line);
    finish();
}

void AppModel::ownerAnswered()
{
    Conversation& call = *m_call;
    call.hangUpAtEnd = false;
    call.keepRecord = false;
    const QString line = QStringLiteral("Appel de ") + call.record.caller +
                         QStringLiteral(" décroché sur le téléphone : Vemira ne l’enregistre pas");
    call.endDetail = line;
    event(line);
    finish();
}

void AppModel::endConversation(const QString& status)
{
    if (!m_call) {
        setPhase(m_armed ? Phase::Listening : Phase::Paused, status, keptDetail());
        return;
    }
    m_call->endStatus = status;
    finish();
}

void AppModel::addWindDownStep(double boundSeconds, WindDownStep step)
{
    m_windDown.append({boundSeconds, std::move(step)});
}

void AppModel::finish()
{
    if (!m_call) {
        m_ringSince.reset();
        setPhase(m_armed ? Phase::Listening : Phase::Paused, QString(), keptDetail());
        return;
    }
    if (m_call->ending) {
        closeAndSave();
        return;
    }
    Conversation& call = *m_call;
    call.ending = true;
    call.readinessTimeout.reset();
    call.readyAction = nullptr;
    call.postAnswerCheck.reset();
    d->audio->stop();
    // A call still open in the phone application is closed by whoever ends it: here, us. One
    // reading of the phone's window proves little either way, so the press is made and then
    // watched on the following ticks.
    if (call.phoneSession && call.answered && call.hangUpAtEnd) {
        d->hangUp = Parts::HangUpWatch{};
        pressHangUp();
    }
    call.windDownStep = 0;
    runWindDown();
}

void AppModel::pressHangUp()
{
    d->hangUp->presses += 1;
    d->hangUp->quietTicks = 0;
    if (Status failed = d->phone->hangup()) {
        // No button at all is the phone showing no call: the watch decides.
        if (d->phone->hasActiveCall())
            event(failed->message());
    } else {
        event(QStringLiteral("Appel raccroché"));
    }
}

void AppModel::checkHangUp()
{
    if (!d->hangUp)
        return;
    if (!d->phone->hasActiveCall()) {
        if (++d->hangUp->quietTicks >= kHangUpQuietTicks)
            d->hangUp.reset();
        return;
    }
    if (d->hangUp->presses < kHangUpPresses) {
        event(QStringLiteral("L’appel est toujours en cours dans le téléphone : nouvel appui sur "
                             "Raccrocher (%1/%2)")
                  .arg(d->hangUp->presses + 1)
                  .arg(kHangUpPresses));
        pressHangUp();
        return;
    }
    d->hangUp.reset();
    const QString why = QStringLiteral("Vemira n’a pas pu raccrocher : l’appel est toujours en "
                                       "cours dans l’application de téléphonie.");
    const QString whatToDo = QStringLiteral("Terminez l’appel dans l’application de téléphonie.");
    m_error = why + QLatin1Char(' ') + whatToDo;
    event(m_error);
    d->notices->alert(QStringLiteral("Vemira · Appel non raccroché"), why, whatToDo);
}

void AppModel::runWindDown()
{
    Conversation& call = *m_call;
    if (call.windDownStep >= m_windDown.size()) {
        closeAndSave();
        return;
    }
    const WindDown& stage = m_windDown[call.windDownStep];
    // The step's `done` and its bound both move on, once, and only within this conversation.
    QPointer<AppModel> self(this);
    auto next = [self, generation = call.generation, index = call.windDownStep] {
        if (!self || !self->m_call || self->m_call->generation != generation ||
            self->m_call->windDownStep != index)
            return;
        self->m_call->windDownBound.reset();
        self->m_call->windDownStep += 1;
        self->runWindDown();
    };
    call.windDownBound = m_clock.schedule(stage.bound, this, next);
    stage.step(call.record, next);
}

void AppModel::closeAndSave()
{
    // Closing pushes the session's final usage into the record before it is saved.
    d->realtime->close();
    d->macRoute->restore();
    releasePhoneAudio();

    std::unique_ptr<Conversation> call = std::move(m_call);
    call->windDownBound.reset();
    // A call the owner took first never opened a provisional record, and leaves none.
    if (call->keepRecord) {
        d->provisional->close(call->record);
        saveHistory();
    }
    // The owner hears of the call once its record is complete: now, or when the recording
    // has been written. A recording without its record is removed once written.
    if (call->recorder && !call->keepRecord)
        d->discarding.insert(call->record.id);
    if (call->recorder)
        finishRecorder(call->record.id, std::move(call->recorder));
    else if (call->keepRecord)
        d->notices->callSaved(call->record);
    d->audio->setRecorder(nullptr);

    m_intervening = false;
    Q_EMIT currentChanged();
    m_busy = false;
    m_connected = false;

    m_cooldownUntil = m_clock.uptime() + kCooldown;
    m_ringSince.reset();
    setPhase(m_armed ? Phase::CoolDown : Phase::Paused, call->endStatus,
             call->endDetail.isNull() ? keptDetail() : call->endDetail);
    if (d->phoneChoicePending)
        applyPhoneChoice();
}

void AppModel::finishRecorder(const QUuid& id, std::shared_ptr<CallAudioRecorder> recorder)
{
    m_finalizingRecordings.insert(id);
    Q_EMIT finalizingRecordingsChanged();
    // Kept here until its completion reached the main thread: destroying a recorder waits
    // for its worker, which must never happen on the worker itself.
    const auto kept = d->finishing.emplace(id, std::move(recorder));

    // Runs on the recorder's worker. The model's destructor waits for every pending
    // completion before anything goes, so `this` is valid here.
    kept.value()->finish([this, id](const Result<QString>& outcome) {
        d->mailbox.post([this, id, outcome] { recordingFinished(id, outcome); });
    });
}

void AppModel::recordingFinished(const QUuid& id, const Result<QString>& outcome)
{
    const auto recorder = d->finishing.value(id);
    if (d->discarding.remove(id)) {
        if (outcome)
            QFile::remove(outcome.value());
        m_finalizingRecordings.remove(id);
        Q_EMIT finalizingRecordingsChanged();
        d->finishing.remove(id);
        return;
    }
    const std::optional<QString> incomplete =
        recorder ? recorder->incompleteReason() : std::nullopt;
    d->store.modify(id, [&outcome, &incomplete](CallRecord& record) {
        if (outcome) {
            record.recordingFile = QFileInfo(outcome.value()).fileName();
            record.recordingError = incomplete; // blocks lost, or cut short by a write error
        } else {
            record.recordingError = outcome.error().message();
        }
    });
    m_finalizingRecordings.remove(id);
    Q_EMIT finalizingRecordingsChanged();
    saveHistory();
    d->finishing.remove(id);
    if (const CallRecord* record = d->store.find(id))
        d->notices->callSaved(*record);
}

void AppModel::routePhoneAudio(qint64 processId)
{
    PhoneAudioRouting* routing = d->dependencies.phoneRouting.get();
    if (!routing || !m_call || !m_call->phoneSession)
        return;
    // A stream the softphone opens at answer time is caught too: routing watches until the end.
    const PhoneStreamOwner owner{processId, d->dependencies.phoneApplications};
    if (Status failed = routing->route(owner, m_call->input.uid, m_call->output.uid))
        event(failed->message());
    else
        event(QStringLiteral("Son du téléphone dirigé vers Vemira"));
}

void AppModel::releasePhoneAudio()
{
    PhoneAudioRouting* routing = d->dependencies.phoneRouting.get();
    if (!routing || !routing->routing())
        return;
    routing->release();
    const PhoneRoutingCounts counts = routing->counts();
    event(QStringLiteral("Son du téléphone rendu : %1 flux dirigés vers Vemira, %2 remis en "
                         "place, %3 fermés par le téléphone")
              .arg(counts.moved)
              .arg(counts.returned)
              .arg(counts.closed));
}

} // namespace vemira
