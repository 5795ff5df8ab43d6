#include "app/AppModel.h"

#include "ai/RealtimeCallControl.h"
#include "ai/RealtimeProtocol.h"
#include "app/AppModelParts.h"
#include "app/RecordingRecovery.h"

#include <QElapsedTimer>
#include <QLocale>
#include <QPointer>
#include <QThread>

namespace vemira {

AppModel::AppModel(AppDependencies dependencies, QObject* parent)
    : GuidedSetupState(dependencies.clock->now(), parent), m_clock(*dependencies.clock),
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
    m_recordingRetentionDays = d->settings.recordingRetentionDays();
    m_rearmOnWake = d->settings.rearmOnWake();
    m_phoneApp = d->settings.phoneApp();
    d->rules = d->settings.answeringRules();
    m_answeringRule = d->rules.inForce(m_clock.now());
    d->everyPhoneApplication = deps.phoneApplications;
    if (!deps.phoneApplicationsChosen && !m_phoneApp.value().isEmpty())
        deps.phoneApplications = softphones::applicationsOf(softphones::chosen(m_phoneApp));
    m_interventionMicUID = d->settings.interventionMicUID().value_or(QString());
    m_interventionOutputUID = d->settings.interventionOutputUID().value_or(QString());
    wireDerivedNotifications();
    replaceRetiredModel();

    setPhase(Phase::Paused);
    m_audioDiagnostic = QStringLiteral("Aucune conversation en cours");

    // History.
    QObject::connect(&d->store, &RecordsStore::recordsChanged, this, &AppModel::recordsChanged);
    QObject::connect(&d->store, &RecordsStore::notice, this,
                     [this](const QString& line) { event(line); });
    d->provisional = std::make_unique<ProvisionalRecord>(
        d->store, m_clock, this, [this] { return m_call ? &m_call->record : nullptr; });
    d->provisional->onSaveFailed = [this](const QString& message) { event(message); };
    QObject::connect(this, &AppModel::currentChanged, this, [this] { d->provisional->changed(); });
    if (Status loaded = d->store.load()) {
        m_error = loaded->message();
        event(loaded->message());
        if (const auto& reason = d->store.readFailure())
            event(QStringLiteral("Cause : ") + reason->message());
    }
    d->store.watchFile();
    for (const QString& line : recoverRecordings(d->store))
        event(line);
    applyRecordingRetention();

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
    d->notices = std::make_unique<AfterCallNotices>(m_clock, d->settings, d->folder,
                                                    std::move(deps.notifier));
    d->notices->onLog = [this](const QString& line) { event(line); };
    d->notices->onOpenCall = [this](const QUuid& id) {
        m_selectedRecord = id;
        // An alert names no call: the home page says what happened.
        m_page = id.isNull() ? QStringLiteral("Accueil") : QStringLiteral("Conversations");
        Q_EMIT callOpenRequested(id);
    };

    refresh();
    m_aiStatus = m_keyPresent ? QStringLiteral("Clé enregistrée · connexion à vérifier")
                              : QStringLiteral("Aucune clé enregistrée");

    bindRealtimeCallbacks();
    bindMessageTaking();

    m_timer = m_clock.repeat(kTickPeriod, this, [this] { tick(); });
    addResponseSettling();

    if (deps.sleepNotifier) {
        QPointer<AppModel> self(this);
        deps.sleepNotifier->onWillSleep = [self] {
            if (self)
                self->willSleep();
        };
        deps.sleepNotifier->onWoke = [self] {
            if (self)
                self->woke();
        };
        deps.sleepNotifier->onWillPowerOff = [self] {
            if (self)
                self->willPowerOff();
        };
    }
}

AppModel::~AppModel()
{
    // Quitting in the middle of a conversation keeps it, like any other end; a wind-down
    // under way is cut short.
    if (m_call)
        finish();
    if (m_call)
        finish();
    // The audio threads and the probe must be quiet before the state they report to goes.
    if (d->dependencies.sleepNotifier) {
        d->dependencies.sleepNotifier->onWillSleep = nullptr;
        d->dependencies.sleepNotifier->onWoke = nullptr;
        d->dependencies.sleepNotifier->onWillPowerOff = nullptr;
    }
    m_timer.reset();
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
    d->realtime->onNotice = nullptr;
    d->realtime->onAILineCut = nullptr;
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

// What follows from what: the readiness list and the setup progress are derived from the
// devices, permissions, key and proofs; the composed instructions from the company, the
// custom text and the recording notice. Some choices are persisted as soon as they change.
void AppModel::wireDerivedNotifications()
{
    for (auto changed :
         {&AppModel::inputUIDChanged, &AppModel::outputUIDChanged, &AppModel::accessibilityChanged,
          &AppModel::micAllowedChanged, &AppModel::keyPresentChanged, &AppModel::aiVerifiedChanged,
          &AppModel::devicesChanged, &AppModel::modelChanged})
        connect(this, changed, this, &AppModel::notifyReadiness);
    connect(this, &GuidedSetupState::routingConfirmedChanged, this, &AppModel::notifyReadiness);
    connect(this, &GuidedSetupState::validatedCallIDChanged, this, &AppModel::notifyReadiness);
    connect(this, &AppModel::devicesChanged, this, &AppModel::macTestRouteChanged);
    for (auto changed : {&AppModel::companyChanged, &AppModel::customInstructionsChanged,
                         &AppModel::recordingEnabledChanged})
        connect(this, changed, this, &AppModel::instructionsChanged);

    connect(this, &AppModel::interventionMicUIDChanged, this, [this] {
        const QString value = m_interventionMicUID;
        d->settings.setInterventionMicUID(value.isEmpty() ? std::nullopt : std::optional(value));
    });
    connect(this, &AppModel::interventionOutputUIDChanged, this, [this] {
        const QString value = m_interventionOutputUID;
        d->settings.setInterventionOutputUID(value.isEmpty() ? std::nullopt : std::optional(value));
    });
    connect(this, &AppModel::recordingEnabledChanged, this,
            [this] { d->settings.setRecordingEnabled(m_recordingEnabled); });
    connect(this, &AppModel::recordingRetentionDaysChanged, this, [this] {
        d->settings.setRecordingRetentionDays(m_recordingRetentionDays);
        applyRecordingRetention();
    });
    connect(this, &AppModel::rearmOnWakeChanged, this,
            [this] { d->settings.setRearmOnWake(m_rearmOnWake); });
    connect(this, &AppModel::phoneAppChanged, this, [this] {
        d->settings.setPhoneApp(m_phoneApp);
        // The conversation under way keeps the application that rang.
        if (m_call)
            d->phoneChoicePending = true;
        else
            applyPhoneChoice();
    });
}

void AppModel::notifyReadiness()
{
    Q_EMIT readinessIssuesChanged();
    Q_EMIT setupPercentChanged();
}

// --- Session log ---------------------------------------------------------------------

QString AppModel::shortTime(const QDateTime& time) const
{
    return QLocale().toString(time.time(), QLocale::ShortFormat);
}

void AppModel::event(const QString& text)
{
    m_log.prepend(shortTime(m_clock.now()) + QStringLiteral(" · ") + text);
    ++m_logLinesWritten;
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
        if (self->m_call) {
            self->m_call->record.usage = usage;
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
            self->aiFailed(message);
    };
    client.onServerError = [self](const std::optional<QString>& code, const QString& message) {
        if (!self)
            return;
        // Before the session is ready nothing can go on; after, most errors concern one
        // request and the conversation continues.
        if (!self->m_connected || realtime::serverErrorEndsSession(code))
            self->aiFailed(message);
        else
            self->event(message);
    };
    client.onReady = [self] {
        if (self)
            self->sessionReady();
    };
    client.onNotice = [self](const QString& line) {
        if (self)
            self->event(line);
    };
    client.onAILineCut = [self] {
        if (self)
            self->markLastAILineCut();
    };
}

void AppModel::markLastAILineCut()
{
    if (!m_call)
        return;
    QList<TranscriptLine>& lines = m_call->record.transcript;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        if (line->speaker != realtime::aiSpeaker())
            continue;
        if (!line->text.endsWith(realtime::cutMark())) {
            line->text += realtime::cutMark();
            Q_EMIT currentChanged();
        }
        return;
    }
}

void AppModel::addResponseSettling()
{
    // A response still being generated when the call ends is reserved in the estimate as a
    // whole context plus a maximal answer (about 1.60 $); its bilan usually follows within a
    // second and replaces that with what it cost. Waited for briefly, after the steps that
    // ask the model for more; without it the record keeps the provision, and its label says so.
    addWindDownStep(kResponseSettle + 0.5, [this](CallRecord&, std::function<void()> done) {
        d->realtime->awaitResponses(kResponseSettle, [this, done](bool settled) {
            if (!settled)
                event(QStringLiteral("Bilan de la dernière réponse non reçu : la provision "
                                     "reste comptée."));
            done();
        });
    });
}

void AppModel::appendToCurrent(const QString& speaker, const QString& text)
{
    if (!m_call)
        return;
    m_call->record.transcript.append(TranscriptLine::create(speaker, text));
    if (m_call->goodbyeAsked && speaker == realtime::aiSpeaker())
        m_call->goodbyeSaid = true;
    Q_EMIT currentChanged();
}

// --- The conversation under way, as read from outside -----------------------------------

const CallRecord* AppModel::current() const
{
    return m_call ? &m_call->record : nullptr;
}
QUuid AppModel::generation() const
{
    return m_call ? m_call->generation : QUuid();
}
bool AppModel::sawActiveCall() const
{
    return m_call && m_call->sawActiveCall;
}
int AppModel::missingActive() const
{
    return m_call ? m_call->missingActive : 0;
}
std::optional<double> AppModel::callStarted() const
{
    return m_call ? std::optional<double>(m_call->started) : std::nullopt;
}
bool AppModel::phoneSession() const
{
    return m_call && m_call->phoneSession;
}
bool AppModel::hasReadinessTimeout() const
{
    return m_call && m_call->readinessTimeout;
}
bool AppModel::hasReadyAction() const
{
    return m_call && m_call->readyAction;
}
bool AppModel::hasConnectionProbe() const
{
    return d->probe != nullptr;
}
bool AppModel::hangUpPending() const
{
    return d->hangUp.has_value();
}
int AppModel::audioRecoveryCount() const
{
    return m_call ? m_call->audioRecoveryCount : 0;
}
std::optional<SoundDevice> AppModel::sessionInput() const
{
    return m_call ? std::optional(m_call->input) : std::nullopt;
}
std::optional<SoundDevice> AppModel::sessionOutput() const
{
    return m_call ? std::optional(m_call->output) : std::nullopt;
}
bool AppModel::hasRecorder() const
{
    return m_call && m_call->recorder;
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
