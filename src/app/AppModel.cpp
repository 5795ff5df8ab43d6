#include "app/AppModel.h"

#include "ai/AIConnectionCheck.h"
#include "ai/RealtimeClient.h"
#include "app/MainThreadMailbox.h"
#include "audio/AudioBridge.h"
#include "audio/CallAudioRecorder.h"
#include "audio/MacAudioRoute.h"
#include "audio/VoiceEQSettings.h"
#include "phone/NativeAudioSetup.h"
#include "phone/PhoneAutomation.h"
#include "records/APIKeyStore.h"
#include "records/AgentInstructions.h"
#include "records/RecordsStore.h"
#include "records/Settings.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QHash>
#include <QLocale>
#include <QMetaObject>
#include <QPointer>
#include <QThread>

namespace vemira {

namespace {

QString callKind(bool phoneMode)
{
    return phoneMode ? QStringLiteral("Appel") : QStringLiteral("Essai");
}

} // namespace

// The long-lived engines and stores, kept out of the header so the screens compile
// against the model without the engines' headers.
struct AppModel::Parts {
    explicit Parts(AppDependencies deps)
        : mailbox(), dependencies(std::move(deps)),
          settings(dependencies.settingsFile.isEmpty() ? Settings()
                                                       : Settings(dependencies.settingsFile)),
          folder(dependencies.dataFolder.isEmpty() ? DataFolder::standard()
                                                   : DataFolder(dependencies.dataFolder)),
          store(folder), keyStore(folder.credentialsFolder())
    {}

    // Audio-thread and worker hand-offs to the main thread. First, so that it outlives
    // everything that may still post to it while the parts are torn down.
    MainThreadMailbox mailbox;
    AppDependencies dependencies;
    Settings settings;
    DataFolder folder;
    RecordsStore store;
    LocalKeyStore keyStore;
    VoiceEQSettings voiceEQ;
    std::unique_ptr<RealtimeClient> realtime;
    std::unique_ptr<AudioBridge> audio;
    std::unique_ptr<PhoneAutomation> phone;
    std::unique_ptr<NativeAudioSetup> audioSetup;
    std::unique_ptr<MacAudioRoute> macRoute;
    std::unique_ptr<AIConnectionCheck> probe;
    QHash<QUuid, std::shared_ptr<CallAudioRecorder>> finishing;
};

AppModel::AppModel(AppDependencies dependencies, QObject* parent)
    : QObject(parent), m_clock(*dependencies.clock),
      d(std::make_unique<Parts>(std::move(dependencies)))
{
    AppDependencies& deps = d->dependencies;
    Q_ASSERT(deps.audioSystem && deps.deviceIO && deps.accessibility && deps.workspace);

    // Settings, read once with their literal defaults.
    const Settings::Group group = d->settings.group();
    m_inputUID = group.inputUID;
    m_outputUID = group.outputUID;
    m_voice = group.voice;
    m_model = group.model;
    m_company = group.company;
    m_customInstructions = group.instructions;
    m_voiceStyle = d->settings.voiceStyle();
    d->voiceEQ = VoiceEQSettings::load(d->settings.voiceEQ().value_or(QByteArray()));
    m_recordingEnabled = d->settings.recordingEnabled();
    m_interventionMicUID = d->settings.interventionMicUID().value_or(QString());
    m_interventionOutputUID = d->settings.interventionOutputUID().value_or(QString());

    // Default texts.
    m_setupSessionStart = m_clock.now();
    m_generation = QUuid::createUuid();
    m_status = QStringLiteral("Standard en pause");
    m_detail = QStringLiteral("Activez le standard pour répondre aux appels.");
    m_audioDiagnostic = QStringLiteral("Aucune conversation en cours");
    m_relayStatus = QStringLiteral("Aucun appel relayé observé pour l’instant");
    m_configurationStatus = QStringLiteral("Configuration audio non lancée");
    m_microphoneStatus = QStringLiteral("Micro non testé");
    m_nativeAudioStatus = QStringLiteral("Son de Téléphone non configuré");
    m_voiceStyleStatus = QString();
    m_outgoingStatus = QString();

    // History.
    QObject::connect(&d->store, &RecordsStore::recordsChanged, this, &AppModel::recordsChanged);
    if (Status loaded = d->store.load()) {
        m_error = loaded->message();
        event(loaded->message());
    }

    // Engines.
    d->realtime = std::make_unique<RealtimeClient>(m_clock);
    // The bridge reads its own monotonic time on the audio threads; the model's clock stays
    // on the main thread.
    d->audio = std::make_unique<AudioBridge>(*deps.deviceIO, *deps.audioSystem);
    d->phone =
        std::make_unique<PhoneAutomation>(*deps.accessibility, m_clock, deps.phoneApplications);
    d->audioSetup =
        std::make_unique<NativeAudioSetup>(*deps.accessibility, m_clock, deps.phoneApplication);
    d->audioSetup->storePreviousInput = [this](const QString& v) {
        d->settings.setPhonePreviousInput(v);
    };
    d->audioSetup->storePreviousOutput = [this](const QString& v) {
        d->settings.setPhonePreviousOutput(v);
    };
    d->macRoute = std::make_unique<MacAudioRoute>(*deps.audioSystem);

    refresh();
    m_aiStatus = m_keyPresent ? QStringLiteral("Clé enregistrée · connexion à vérifier")
                              : QStringLiteral("Aucune clé enregistrée");

    bindRealtimeCallbacks();

    m_timer = m_clock.repeat(kTickPeriod, this, [this] { tick(); });

    if (deps.sleepNotifier) {
        QPointer<AppModel> self(this);
        deps.sleepNotifier->onWillSleep = [self] {
            if (!self)
                return;
            self->setArmed(false);
            self->finish();
            self->setStatus(QStringLiteral("En pause · Mac en veille"));
        };
    }
}

AppModel::~AppModel()
{
    // Quitting in the middle of a conversation keeps it, like any other end.
    if (m_busy)
        finish();
    // The audio threads and the probe must be quiet before the state they report to goes.
    if (d->dependencies.sleepNotifier)
        d->dependencies.sleepNotifier->onWillSleep = nullptr;
    m_timer.reset();
    m_timeout.reset();
    m_postAnswerCheck.reset();
    d->probe.reset();
    d->audio->stop();
    d->audio->onPCM = nullptr;
    d->realtime->onReady = nullptr;
    d->realtime->onAudio = nullptr;
    d->realtime->onTranscript = nullptr;
    d->realtime->onInterruption = nullptr;
    d->realtime->onError = nullptr;
    d->realtime->onUsage = nullptr;
    d->realtime->onInstructionsApplied = nullptr;
    d->realtime->close();
    d->macRoute->restore();
    // Recordings still being mixed are filed in the history before the model goes: their
    // completions come through the mailbox, so drain it until none is pending. Bounded, in
    // case a disk hangs; a shutdown wait, not call time, hence the real clock.
    QElapsedTimer waited;
    waited.start();
    while (!m_finalizingRecordings.isEmpty() && waited.elapsed() < 10000) {
        if (d->mailbox.drain() == 0)
            QThread::msleep(5);
    }
    d->finishing.clear();
}

// --- Session log ---------------------------------------------------------------------

QString AppModel::shortTime(const QDateTime& time) const
{
    return QLocale().toString(time.time(), QLocale::ShortFormat);
}

void AppModel::event(const QString& text)
{
    m_log.prepend(shortTime(m_clock.now()) + QStringLiteral(" · ") + text);
    while (m_log.size() > kLogLines)
        m_log.removeLast();
    Q_EMIT logChanged();
}

// --- Realtime callbacks ---------------------------------------------------------------

void AppModel::bindRealtimeCallbacks()
{
    RealtimeClient& client = *d->realtime;
    QPointer<AppModel> self(this);
    client.onUsage = [self](const ConversationUsage& usage) {
        if (!self)
            return;
        self->m_conversationUsage = usage;
        Q_EMIT self->conversationUsageChanged();
        if (self->m_current) {
            self->m_current->usage = usage;
            Q_EMIT self->currentChanged();
        }
    };
    client.onAudio = [self](const QByteArray& pcm) {
        // While the manager speaks, the AI's voice is dropped rather than queued for later.
        if (self && !self->m_intervening)
            self->d->audio->enqueue(pcm);
    };
    client.onTranscript = [self](const QString& speaker, const QString& text) {
        if (self)
            self->appendToCurrent(speaker, text);
    };
    client.onInterruption = [self] {
        if (self)
            self->d->audio->interrupt();
    };
    client.onError = [self](const QString& message) {
        if (self)
            self->fail(message);
    };
    client.onReady = [self] {
        if (self)
            self->sessionReady();
    };
}

void AppModel::appendToCurrent(const QString& speaker, const QString& text)
{
    if (!m_current)
        return;
    m_current->transcript.append(TranscriptLine::create(speaker, text));
    Q_EMIT currentChanged();
}

// --- The standby loop ----------------------------------------------------------------

void AppModel::tick()
{
    if (m_guidedSetup)
        m_guidedSetup->resumeSetupIfReady();
    setAccessibility(d->dependencies.accessibility->isTrusted());
    if (m_observingRelay && m_guidedSetup)
        m_guidedSetup->observeRelay();
    ageRelayEvidence();

    const double now = m_clock.uptime();
    if (m_busy) {
        if (m_connected) {
            bool stopTick = false;
            audioWatchdog(stopTick);
            if (stopTick)
                return;
        }
        if (m_callStarted && now - *m_callStarted > kConversationLimit) {
            finish();
            setArmed(false);
            setStatus(QStringLiteral("Limite de 20 minutes atteinte"));
            return;
        }
        if (m_connected && m_phoneSession) {
            if (d->phone->hasActiveCall()) {
                m_sawActiveCall = true;
                m_missingActive = 0;
            } else if (!m_sawActiveCall) {
                if (m_callStarted && now - *m_callStarted > kActiveCallConfirmation)
                    fail(QStringLiteral(
                        "Le décrochage a été demandé, mais la présence d’un appel actif n’a pas pu "
                        "être confirmée. L’audio disponible a été sauvegardé."));
            } else {
                // One missed reading is often a redraw of the phone's window, not a hang-up.
                m_missingActive += 1;
                if (m_missingActive >= kLostCallTicks)
                    finish();
            }
        }
        return; // one call at a time
    }

    if (!m_armed)
        return;
    if (!m_accessibility) {
        setArmed(false);
        setError(QStringLiteral("L’autorisation Accessibilité a été retirée."));
        return;
    }
    if (!(now > m_cooldownUntil))
        return;

    std::optional<IncomingCall> incoming = d->phone->incoming();
    if (!incoming) {
        m_ringSince.reset();
        return;
    }
    if (!m_ringSince) {
        m_ringSince = now;
        setDetail(QStringLiteral("Appel entrant · ") + incoming->caller);
    }
    if (now - *m_ringSince >= kRingConfirmation) {
        m_ringSince.reset();
        QPointer<AppModel> self(this);
        IncomingCall call = *incoming;
        begin(true, call.caller, [self, call]() -> Status {
            if (!self)
                return std::nullopt;
            return self->d->phone->answer(call);
        });
    }
}

void AppModel::ageRelayEvidence()
{
    if (m_lastRelayEvidence.isNull() || m_relayEvidenceAged)
        return;
    if (m_lastRelayEvidence.secsTo(m_clock.now()) > 60) {
        m_relayEvidenceAged = true;
        setRelayStatus(QStringLiteral("Dernier appel détecté à ") + shortTime(m_lastRelayEvidence) +
                       QStringLiteral(" · connexion actuelle non confirmée"));
    }
}

void AppModel::toggleArmed()
{
    if (m_armed) {
        setArmed(false);
        setStatus(m_busy ? QStringLiteral("Conversation en cours")
                         : QStringLiteral("Standard en pause"));
        return;
    }
    if (m_busy)
        return;
    Result<SessionPlan> plan = validate(true);
    if (!plan) {
        setError(plan.error().message());
        return;
    }
    saveSettings();
    verifyAI(true);
}

// --- One conversation ------------------------------------------------------------------

void AppModel::begin(bool phoneMode, const QString& caller, std::function<Status()> action)
{
    if (m_busy)
        return;
    Result<SessionPlan> plan = validate(phoneMode);
    if (!plan) {
        setError(plan.error().message());
        return;
    }
    m_sessionInput = plan.value().input;
    m_sessionOutput = plan.value().output;

    m_audioRecoveryCount = 0;
    setAudioDiagnostic(QStringLiteral("Ouverture des circuits audio…"));
    saveSettings();

    m_generation = QUuid::createUuid();
    const QUuid generation = m_generation;
    // Runs on the capture thread. The model outlives the bridge's callbacks (its destructor
    // stops the bridge first), and a queued task dies with the model.
    d->audio->onPCM = [this, generation](const QByteArray& pcm) {
        d->mailbox.post([this, generation, pcm] {
            if (m_generation == generation)
                d->realtime->append(pcm);
        });
    };

    setBusy(true);
    setConnected(false);
    m_phoneSession = phoneMode;
    m_sawActiveCall = false;
    m_missingActive = 0;

    m_current = CallRecord::create(m_clock.now(), caller, callKind(phoneMode));
    Q_EMIT currentChanged();

    setStatus(QStringLiteral("Connexion à Vemira…"));
    setDetail(QStringLiteral("Préparation de la conversation"));
    m_callStarted = m_clock.uptime();

    QPointer<AppModel> self(this);
    m_readyAction = [self, phoneMode, action = std::move(action)] {
        if (self)
            self->readyStep(phoneMode, action);
    };
    d->realtime->connect(plan.value().key, m_model, m_voice, instructions());

    m_timeout = m_clock.schedule(kReadinessTimeout, this, [this, generation] {
        if (m_generation == generation && !m_connected)
            fail(QStringLiteral("L’IA n’a pas répondu dans les 15 secondes. Aucun décrochage "
                                "automatique effectué."));
    });
}

void AppModel::sessionReady()
{
    m_timeout.reset();
    std::function<void()> action = std::move(m_readyAction);
    m_readyAction = nullptr;
    if (action)
        action();
}

void AppModel::readyStep(bool phoneMode, const std::function<Status()>& action)
{
    if (!m_sessionInput || !m_sessionOutput)
        return;

    if (m_recordingEnabled && m_current) {
        const QString path = QDir(recordingsFolder())
                                 .filePath(QStringLiteral("Appel-") + uuidText(m_current->id) +
                                           QStringLiteral(".wav"));
        Result<std::unique_ptr<CallAudioRecorder>> recorder = CallAudioRecorder::create(path);
        if (recorder) {
            m_recorder = std::move(recorder.value());
        } else {
            m_current->recordingError = recorder.error().message();
            Q_EMIT currentChanged();
        }
    }
    d->audio->setRecorder(m_recorder);
    d->audio->setVoiceEQ(d->voiceEQ);

    if (Status started = d->audio->start(m_sessionInput->id, m_sessionOutput->id, !phoneMode)) {
        fail(started->message());
        return;
    }
    // Only now may the caller be connected: the audio path is open.
    if (action) {
        if (Status answered = action()) {
            fail(answered->message());
            return;
        }
    }

    setConnected(true);
    setStatus(QStringLiteral("Conversation en cours"));
    const QString first =
        phoneMode ? QStringLiteral("Décrochage demandé") : QStringLiteral("Essai audio démarré");
    setDetail(m_recorder ? first + QStringLiteral(" · Enregistrement audio actif") : first);
    event(first);

    const QUuid generation = m_generation;
    m_postAnswerCheck = m_clock.schedule(kPostAnswerCheck, this, [this, generation] {
        if (m_generation == generation)
            postAnswerCheck();
    });
}

void AppModel::postAnswerCheck()
{
    if (!m_connected)
        return;
    if (d->audio->needsRestart()) {
        if (Status restarted = restartAudio()) {
            fail(QStringLiteral("Audio interrompu après décrochage : ") + restarted->message());
            return;
        }
        event(QStringLiteral("Circuits audio réouverts après le décrochage"));
    }
    d->realtime->greet();
}

Status AppModel::restartAudio()
{
    if (!m_sessionInput || !m_sessionOutput)
        return std::nullopt;
    if (d->audio->captureRunning() && d->audio->playbackRunning())
        return d->audio->start(m_sessionInput->id, m_sessionOutput->id, !m_phoneSession);
    return d->audio->resumeStoppedEngines();
}

void AppModel::audioWatchdog(bool& stopTick)
{
    const QString flow = d->audio->flowStatus();
    setAudioDiagnostic(flow);
    if (!(d->audio->needsRestart() && m_sessionInput && m_sessionOutput))
        return;
    if (m_intervening) {
        // Never restart under the manager's voice: the manager takes the call back by hand.
        fail(QStringLiteral("Le son a été interrompu pendant votre intervention. Reprenez l’appel "
                            "dans Téléphone."));
        stopTick = true;
        return;
    }
    if (m_audioRecoveryCount >= kMaxAudioRestarts) {
        const QString opening =
            m_phoneSession ? QStringLiteral("Le son de l’appel est interrompu.")
                           : QStringLiteral("Le micro ou la sortie du Mac ne transmet plus "
                                            "d’audio.");
        fail(opening + QStringLiteral(" ") + flow +
             QStringLiteral(" La session a été arrêtée et l’audio disponible sauvegardé."));
        stopTick = true;
        return;
    }
    m_audioRecoveryCount += 1;
    event(QStringLiteral("Diagnostic avant relance : ") + flow);
    if (Status restarted = restartAudio()) {
        fail(QStringLiteral("Impossible de rétablir le son : ") + restarted->message());
        stopTick = true;
        return;
    }
    event(QStringLiteral("Transport audio relancé (") + QString::number(m_audioRecoveryCount) +
          QStringLiteral("/2)"));
}

void AppModel::fail(const QString& message)
{
    if (m_busy) {
        // The path that failed must be verified again before it is trusted.
        if (m_phoneSession)
            setRoutingConfirmed(false);
        else
            setMacAudioVerified(false);
    }
    setArmed(false);
    finish();
    setStatus(QStringLiteral("Une vérification est nécessaire"));
    setError(message);
    event(message);
}

void AppModel::finish()
{
    m_generation = QUuid::createUuid();
    m_timeout.reset();
    m_readyAction = nullptr;
    m_postAnswerCheck.reset();

    d->audio->stop();
    // Closing pushes the session's final usage into the record before it is saved.
    d->realtime->close();
    d->macRoute->restore();

    if (m_current) {
        d->store.insertFront(*m_current);
        saveHistory();
    }
    if (m_recorder)
        finishRecorder();
    d->audio->setRecorder(nullptr);

    setIntervening(false);
    const bool hadCurrent = m_current.has_value();
    m_current.reset();
    if (hadCurrent)
        Q_EMIT currentChanged();
    setBusy(false);
    setConnected(false);
    m_phoneSession = false;
    m_callStarted.reset();

    m_cooldownUntil = m_clock.uptime() + kCooldown;
    m_ringSince.reset();

    setStatus(m_armed ? QStringLiteral("À l’écoute des appels")
                      : QStringLiteral("Standard en pause"));
    setDetail(QStringLiteral("La conversation est conservée sur ce Mac."));
}

void AppModel::finishRecorder()
{
    std::shared_ptr<CallAudioRecorder> recorder = std::move(m_recorder);
    m_recorder.reset();
    if (!m_current)
        return;
    const QUuid id = m_current->id;
    m_finalizingRecordings.insert(id);
    Q_EMIT finalizingRecordingsChanged();
    // Kept here until its completion reached the main thread: destroying a recorder waits
    // for its worker, which must never happen on the worker itself.
    d->finishing.insert(id, recorder);

    // Runs on the recorder's worker. The model's destructor waits for every pending
    // completion before anything goes, so `this` is valid here.
    recorder->finish([this, id](const Result<QString>& outcome) {
        d->mailbox.post([this, id, outcome] { recordingFinished(id, outcome); });
    });
}

void AppModel::recordingFinished(const QUuid& id, const Result<QString>& outcome)
{
    d->store.modify(id, [&outcome](CallRecord& record) {
        if (outcome) {
            record.recordingFile = QFileInfo(outcome.value()).fileName();
            record.recordingError.reset();
        } else {
            record.recordingError = outcome.error().message();
        }
    });
    m_finalizingRecordings.remove(id);
    Q_EMIT finalizingRecordingsChanged();
    saveHistory();
    d->finishing.remove(id);
}

// --- AI connection check -------------------------------------------------------------------

void AppModel::verifyAI(bool armAfter)
{
    if (m_busy || m_checkingAI || m_preparingAudio || m_testingMicrophone)
        return;
    Result<std::optional<QString>> stored = d->keyStore.read();
    if (!stored || !stored.value() || stored.value()->trimmed().isEmpty()) {
        setError(QStringLiteral(
            "Aucune clé n’est enregistrée. Saisissez votre clé existante dans Connexions."));
        return;
    }
    setCheckingAI(true);
    setAiVerified(false);
    setAiStatus(QStringLiteral("Vérification de la connexion…"));

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
    setCheckingAI(false);
    setAiVerified(!failure.has_value());
    setAiStatus(failure ? *failure : AIConnectionCheck::successStatus());
    notifyReadiness();
    if (failure) {
        setError(*failure);
        return;
    }
    if (!armAfter)
        return;
    Result<SessionPlan> plan = validate(true);
    if (!plan) {
        setError(plan.error().message());
        return;
    }
    setError(QString());
    setArmed(true);
    setStatus(QStringLiteral("À l’écoute des appels"));
    setDetail(QStringLiteral("Décrochage après 3 secondes, lorsque l’IA est prête."));
}

// --- Manager intervention --------------------------------------------------------------

void AppModel::toggleIntervention()
{
    if (!(m_busy && m_connected && m_phoneSession))
        return;
    if (m_intervening) {
        d->audio->stopIntervention();
        setIntervening(false);
        appendToCurrent(QStringLiteral("Suivi"),
                        QStringLiteral("Fin de l’intervention du gestionnaire. Reprise de l’IA."));
        event(QStringLiteral("Micro du gestionnaire fermé · reprise de l’IA"));
        return;
    }

    const SoundDevice* microphone = nullptr;
    const SoundDevice* listening = nullptr;
    for (const SoundDevice& device : m_devices) {
        if (!microphone && device.uid == m_interventionMicUID && device.input)
            microphone = &device;
        if (!listening && device.uid == m_interventionOutputUID && device.output)
            listening = &device;
    }
    const auto isCallDevice = [this](const SoundDevice* device) {
        return device->id == m_sessionInput->id || device->id == m_sessionOutput->id;
    };
    if (!microphone || !listening || !m_sessionInput || !m_sessionOutput ||
        isCallDevice(microphone) || isCallDevice(listening)) {
        setError(QStringLiteral("Choisissez votre micro et votre casque ou haut-parleur dans "
                                "Connexions → Intervention humaine."));
        return;
    }
    if (Status started =
            d->audio->startIntervention(microphone->id, listening->id, m_sessionInput->id)) {
        setError(started->message());
        return;
    }
    setIntervening(true);
    appendToCurrent(
        QStringLiteral("Suivi"),
        QStringLiteral("Intervention du gestionnaire : voix de l’IA suspendue. Cette partie est "
                       "conservée dans l’audio si l’enregistrement est activé ; elle n’est pas "
                       "transcrite automatiquement."));
    event(QStringLiteral("Micro du gestionnaire ouvert vers l’appelant"));
}

// --- Test conversations -----------------------------------------------------------------

void AppModel::startTest()
{
    const bool setupWorking = (m_guidedSetup && m_guidedSetup->isWorking()) || m_configuringAll ||
                              m_preparingAudio || m_macPreparing || m_testingMicrophone ||
                              m_observingRelay;
    if (m_busy || m_armed || setupWorking)
        return;
    if (!m_macAudioVerified) {
        setMacAssistantOpen(true);
        if (m_guidedSetup)
            m_guidedSetup->openMacAssistant();
        return;
    }
    setError(QString());
    refresh();
    if (Status prepared = d->macRoute->prepare(m_devices, *d->dependencies.audioSystem)) {
        setError(prepared->message());
        return;
    }
    begin(false, QStringLiteral("Conversation sur le Mac"), nullptr);
    if (!m_busy)
        d->macRoute->restore();
}

QString AppModel::macTestRoute() const
{
    AudioSystem& system = *d->dependencies.audioSystem;
    auto nameOf = [this](const Result<std::uint32_t>& id,
                         bool wantInput) -> std::optional<QString> {
        if (!id)
            return std::nullopt;
        for (const SoundDevice& device : m_devices) {
            if (device.id == id.value() && (wantInput ? device.input : device.output))
                return device.name;
        }
        return std::nullopt;
    };
    const auto input = nameOf(system.readDefault(AudioSelector::defaultInput), true);
    const auto output = nameOf(system.readDefault(AudioSelector::defaultOutput), false);
    return QStringLiteral("Micro : ") + input.value_or(QStringLiteral("Micro indisponible")) +
           QStringLiteral(" · Sortie : ") + output.value_or(QStringLiteral("Sortie indisponible"));
}

void AppModel::dialTestNumber()
{
    if (m_busy || m_armed)
        return;
    const QString number = m_outgoingNumber.trimmed();
    static const QString accepted = QStringLiteral("+0123456789 .()-");
    const bool foreign =
        std::any_of(number.begin(), number.end(), [](QChar c) { return !accepted.contains(c); });
    if (number.isEmpty() || foreign) {
        setOutgoingStatus(QStringLiteral("Saisissez un numéro de téléphone valide."));
        return;
    }
    QString kept;
    int digits = 0;
    for (QChar c : number) {
        if (c.isDigit())
            ++digits;
        if (c.isDigit() || c == QLatin1Char('+'))
            kept.append(c);
    }
    const qsizetype plusCount = kept.count(QLatin1Char('+'));
    if (digits < 8 || digits > 15 || plusCount > 1 ||
        (plusCount == 1 && !kept.startsWith(QLatin1Char('+')))) {
        setOutgoingStatus(
            QStringLiteral("Saisissez un numéro complet, avec l’indicatif si nécessaire."));
        return;
    }
    const QUrl address(QStringLiteral("tel:") + kept);
    Result<SessionPlan> plan = validate(true);
    if (!plan) {
        setError(plan.error().message());
        return;
    }
    if (d->dependencies.workspace->openUrl(address))
        setOutgoingStatus(QStringLiteral("Confirmez l’appel dans Téléphone si macOS le demande. "
                                         "Quand la personne décroche, cliquez sur Brancher l’IA."));
    else
        setOutgoingStatus(QStringLiteral("Impossible d’ouvrir le numéro. Composez-le dans "
                                         "Téléphone."));
}

void AppModel::takeCurrentCall()
{
    if (!d->phone->hasActiveCall()) {
        setOutgoingStatus(QStringLiteral(
            "Aucun appel actif détecté. Lancez ou décrochez un appel dans Téléphone."));
        return;
    }
    begin(true, QStringLiteral("Appel en cours · identité à confirmer"), nullptr);
}

void AppModel::openPhone()
{
    Accessibility& accessibility = *d->dependencies.accessibility;
    const QString application = d->dependencies.phoneApplication;
    if (accessibility.canOpenApplication(application))
        accessibility.openApplication(application, [] {});
}

// --- Readiness ----------------------------------------------------------------------------

void AppModel::refresh()
{
    setDevices(d->dependencies.audioSystem->devices());
    setAccessibility(d->dependencies.accessibility->isTrusted());
    setMicAllowed(d->dependencies.workspace->microphoneAuthorized());
    setKeyPresent(d->keyStore.exists());
}

ReadinessState AppModel::readinessState() const
{
    ReadinessState s;
    s.devices = m_devices;
    s.inputUID = m_inputUID;
    s.outputUID = m_outputUID;
    s.micAllowed = m_micAllowed;
    s.accessibility = m_accessibility;
    s.routingConfirmed = m_routingConfirmed;
    s.keyPresent = m_keyPresent;
    s.aiVerified = m_aiVerified;
    s.preparingAudio = m_preparingAudio;
    s.testingMicrophone = m_testingMicrophone;
    s.observingRelay = m_observingRelay;
    s.model = m_model;
    s.testCallValidated = !m_validatedCallID.isNull();
    return s;
}

Result<SessionPlan> AppModel::validate(bool phoneMode)
{
    refresh();
    AudioSystem* system = d->dependencies.audioSystem.get();
    auto readDefault = [system](std::uint32_t selector) -> std::optional<quint32> {
        Result<std::uint32_t> id = system->readDefault(selector);
        return id ? std::optional<quint32>(id.value()) : std::nullopt;
    };
    ValidationSources sources;
    sources.defaultInputID = [readDefault] { return readDefault(AudioSelector::defaultInput); };
    sources.defaultOutputID = [readDefault] { return readDefault(AudioSelector::defaultOutput); };
    sources.readKey = [this] { return d->keyStore.read(); };
    return setup::validate(readinessState(), phoneMode, sources);
}

QStringList AppModel::readinessIssues() const
{
    return setup::readinessIssues(readinessState());
}

int AppModel::setupPercent() const
{
    return setup::setupPercent(readinessState());
}

QString AppModel::recordingsFolder() const
{
    return d->folder.recordingsFolder();
}

// --- Records, settings, key -----------------------------------------------------------------

void AppModel::saveHistory()
{
    if (Status saved = d->store.saveHistory()) {
        setError(saved->message());
        event(saved->message());
    }
}

void AppModel::addDemo()
{
    RecordsStore::DemoAdded added = d->store.addDemo(m_clock.now());
    if (added.saved)
        setError(added.saved->message());
    setSelectedRecord(added.id);
    setPage(QStringLiteral("Conversations"));
}

void AppModel::updateNote(const QUuid& id, const QString& text)
{
    if (Status s = d->store.updateNote(id, text))
        setError(s->message());
}

void AppModel::updateDossier(const QUuid& id, const QString& name)
{
    if (Status s = d->store.updateDossier(id, name))
        setError(s->message());
}

void AppModel::updateFollowUpStatus(const QUuid& id, const QString& status)
{
    if (Status s = d->store.updateFollowUpStatus(id, status))
        setError(s->message());
}

void AppModel::saveKey(const QString& text)
{
    Result<QString> key = keyFromUserText(text);
    if (!key) {
        setError(key.error().message());
        return;
    }
    if (Status saved = d->keyStore.save(key.value())) {
        setError(saved->message());
        return;
    }
    setAiVerified(false);
    setAiStatus(QStringLiteral("Clé enregistrée · connexion à vérifier"));
    setKeyPresent(true);
    d->settings.setKeySaved(true);
    event(QStringLiteral("Clé enregistrée sur ce Mac"));
}

void AppModel::deleteKey()
{
    if (m_busy)
        return;
    if (Status removed = d->keyStore.remove()) {
        setError(removed->message());
        return;
    }
    setAiVerified(false);
    setKeyPresent(false);
    d->settings.setKeySaved(false);
}

void AppModel::saveSettings()
{
    d->settings.saveGroup(
        {m_inputUID, m_outputUID, m_voice, m_model, m_company, m_customInstructions});
    event(QStringLiteral("Réglages enregistrés"));
}

void AppModel::copyTranscript(const QUuid& id)
{
    const CallRecord* record = d->store.find(id);
    if (!record || !d->dependencies.desktop)
        return;
    if (std::optional<QString> message = d->store.copyTranscript(*record, *d->dependencies.desktop))
        assign(m_transcriptCopyStatus, *message, &AppModel::transcriptCopyStatusChanged);
}

void AppModel::exportTranscript(const QUuid& id)
{
    const CallRecord* record = d->store.find(id);
    if (!record || !d->dependencies.desktop)
        return;
    if (auto message = d->store.exportTranscript(*record, *d->dependencies.desktop))
        setError(*message);
}

void AppModel::revealTranscript(const QUuid& id)
{
    const CallRecord* record = d->store.find(id);
    if (!record || !d->dependencies.desktop)
        return;
    if (auto message = d->store.revealTranscript(*record, *d->dependencies.desktop))
        setError(*message);
}

void AppModel::exportRecording(const QUuid& id)
{
    const CallRecord* record = d->store.find(id);
    if (!record || !d->dependencies.desktop)
        return;
    if (auto message = d->store.exportRecording(*record, *d->dependencies.desktop))
        setError(*message);
}

QString AppModel::instructions() const
{
    return composeInstructions({m_company, m_customInstructions, m_voiceStyle, m_recordingEnabled});
}

void AppModel::applyVoiceStyle(const QString& text)
{
    InstructionInputs inputs{m_company, m_customInstructions, m_voiceStyle, m_recordingEnabled};
    QPointer<AppModel> self(this);
    d->realtime->onInstructionsApplied = [self] {
        if (self)
            self->assign(self->m_voiceStyleStatus, voiceStyleReceivedStatus(),
                         &AppModel::voiceStyleStatusChanged);
    };
    const QString status =
        vemira::applyVoiceStyle(text, inputs, d->settings, [this](const QString& composed) {
            return m_connected && d->realtime->updateInstructions(composed);
        });
    assign(m_voiceStyle, inputs.voiceStyle, &AppModel::voiceStyleChanged);
    Q_EMIT instructionsChanged();
    assign(m_voiceStyleStatus, status, &AppModel::voiceStyleStatusChanged);
}

const VoiceEQSettings& AppModel::voiceEQ() const
{
    return d->voiceEQ;
}

void AppModel::setVoiceEQ(const VoiceEQSettings& settings)
{
    if (d->voiceEQ == settings)
        return;
    d->voiceEQ = settings;
    d->settings.setVoiceEQ(settings.toJson());
    d->audio->setVoiceEQ(settings);
    Q_EMIT voiceEQChanged();
}

// --- Engines and stores ----------------------------------------------------------------------

Settings& AppModel::settingsStore()
{
    return d->settings;
}
MacAudioRoute& AppModel::macRoute()
{
    return *d->macRoute;
}
NativeAudioSetup& AppModel::audioSetup()
{
    return *d->audioSetup;
}
AudioBridge& AppModel::audio()
{
    return *d->audio;
}
RealtimeClient& AppModel::realtime()
{
    return *d->realtime;
}
PhoneAutomation& AppModel::phone()
{
    return *d->phone;
}
const QList<CallRecord>& AppModel::records() const
{
    return d->store.records();
}
bool AppModel::historyReadFailed() const
{
    return d->store.historyReadFailed();
}

} // namespace vemira
