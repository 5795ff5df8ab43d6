#pragma once

#include "app/AppDependencies.h"
#include "app/Conversation.h"
#include "app/GuidedSetupState.h"
#include "core/AppError.h"
#include "core/Clock.h"
#include "records/AnsweringRules.h"
#include "records/CallRecord.h"
#include "records/ConversationUsage.h"
#include "records/ModelCatalogue.h"
#include "setup/Readiness.h"

#include <QDateTime>
#include <QList>
#include <QObject>
#include <QPair>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QUuid>
#include <functional>
#include <memory>
#include <optional>

namespace vemira {

class AfterCallNotices;
class AudioBridge;
class CallAudioRecorder;
class MacAudioRoute;
class NativeAudioSetup;
class PhoneAutomation;
class RealtimeClient;
class RecordsStore;
class Settings;
struct VoiceEQSettings;

// What the guided setup (the user interface's assistant) plugs into the standby loop.
// Every method returns at once and never starts a conversation.
class GuidedSetupHooks {
public:
    virtual ~GuidedSetupHooks() = default;
    // First step of every tick: carry on a setup step that was waiting for a condition.
    virtual void resumeSetupIfReady() {}
    // While `observingRelay`: look for the setup test call relayed to the phone application.
    virtual void observeRelay() {}
    // A setup task is working (a test conversation must not start meanwhile).
    virtual bool isWorking() const { return false; }
    // The Mac's own audio path has not been verified yet: open its preparation instead.
    virtual void openMacAssistant() {}
};

// The single object that holds the application's state and drives every call. Lives on the
// main thread; audio threads, the WebSocket and delayed tasks reach it only by hopping there.
// Properties carry the names the screens use; every one notifies `<name>Changed()`.
class AppModel : public GuidedSetupState {
    Q_OBJECT

    // Screens, panels and the guided setup's state: see GuidedSetupState.

    // Call state shown to the user.
    Q_PROPERTY(QString status READ status NOTIFY statusChanged)
    Q_PROPERTY(QString detail READ detail NOTIFY detailChanged)
    // Null string when there is no error.
    Q_PROPERTY(QString error READ error WRITE setError NOTIFY errorChanged)
    Q_PROPERTY(bool armed READ armed NOTIFY armedChanged)
    Q_PROPERTY(bool busy READ busy NOTIFY busyChanged)
    Q_PROPERTY(bool connected READ connected NOTIFY connectedChanged)

    // AI connection.
    Q_PROPERTY(bool keyPresent READ keyPresent NOTIFY keyPresentChanged)
    Q_PROPERTY(bool aiVerified READ aiVerified NOTIFY aiVerifiedChanged)
    Q_PROPERTY(bool checkingAI READ checkingAI NOTIFY checkingAIChanged)
    Q_PROPERTY(QString aiStatus READ aiStatus NOTIFY aiStatusChanged)

    // Devices and voice. `devices`, `voiceEQ`: see the getters below.
    Q_PROPERTY(QString inputUID READ inputUID WRITE setInputUID NOTIFY inputUIDChanged)
    Q_PROPERTY(QString outputUID READ outputUID WRITE setOutputUID NOTIFY outputUIDChanged)
    Q_PROPERTY(QString voiceStyle READ voiceStyle NOTIFY voiceStyleChanged)
    Q_PROPERTY(QString voiceStyleStatus READ voiceStyleStatus NOTIFY voiceStyleStatusChanged)
    Q_PROPERTY(QString voice READ voice WRITE setVoice NOTIFY voiceChanged)
    Q_PROPERTY(QString model READ model WRITE setModel NOTIFY modelChanged)
    Q_PROPERTY(QString company READ company WRITE setCompany NOTIFY companyChanged)
    Q_PROPERTY(QString customInstructions READ customInstructions WRITE setCustomInstructions NOTIFY
                   customInstructionsChanged)
    // The composed instructions sent at the start of a conversation.
    Q_PROPERTY(QString instructions READ instructions NOTIFY instructionsChanged)

    // Records. `records`, `current`: see the getters below. Null UUID = none selected.
    Q_PROPERTY(QUuid selectedRecord READ selectedRecord WRITE setSelectedRecord NOTIFY
                   selectedRecordChanged)

    // Permissions.
    Q_PROPERTY(bool accessibility READ accessibility NOTIFY accessibilityChanged)
    Q_PROPERTY(bool micAllowed READ micAllowed NOTIFY micAllowedChanged)

    // The session log, newest first, at most 50 lines.
    Q_PROPERTY(QStringList log READ log NOTIFY logChanged)

    // Intervention and audio health.
    Q_PROPERTY(bool intervening READ intervening NOTIFY interveningChanged)
    Q_PROPERTY(QString interventionMicUID READ interventionMicUID WRITE setInterventionMicUID NOTIFY
                   interventionMicUIDChanged)
    Q_PROPERTY(QString interventionOutputUID READ interventionOutputUID WRITE
                   setInterventionOutputUID NOTIFY interventionOutputUIDChanged)
    Q_PROPERTY(QString audioDiagnostic READ audioDiagnostic NOTIFY audioDiagnosticChanged)

    // Usage and recording. `conversationUsage`, `finalizingRecordings`: see the getters below.
    // Re-run the AI check and arm again when the computer wakes up (if it was armed).
    Q_PROPERTY(bool rearmOnWake READ rearmOnWake WRITE setRearmOnWake NOTIFY rearmOnWakeChanged)
    // The phone application watched for calls (a profile id such as "twinkle"); empty:
    // every known one. Taken into account at once, or after the call under way.
    Q_PROPERTY(QString phoneApp READ phoneApp WRITE setPhoneApp NOTIFY phoneAppChanged)
    Q_PROPERTY(bool recordingEnabled READ recordingEnabled WRITE setRecordingEnabled NOTIFY
                   recordingEnabledChanged)
    // Days recordings are kept (0: never deleted); applied at start, on change, once a day.
    Q_PROPERTY(int recordingRetentionDays READ recordingRetentionDays WRITE
                   setRecordingRetentionDays NOTIFY recordingRetentionDaysChanged)
    Q_PROPERTY(
        QString transcriptCopyStatus READ transcriptCopyStatus NOTIFY transcriptCopyStatusChanged)

    // The answering rule in force now, in one line ("Ouvert : Vemira répond après 20 s").
    Q_PROPERTY(QString answeringRule READ answeringRule NOTIFY answeringRuleChanged)

    // Readiness (derived).
    Q_PROPERTY(QStringList readinessIssues READ readinessIssues NOTIFY readinessIssuesChanged)
    Q_PROPERTY(int setupPercent READ setupPercent NOTIFY setupPercentChanged)
    Q_PROPERTY(QString macTestRoute READ macTestRoute NOTIFY macTestRouteChanged)

public:
    // Constants of the standby loop and the conversation lifecycle, in seconds.
    static constexpr double kTickPeriod = 1.0;
    // The shortest ringing before a conversation begins, whatever the answering rules say.
    static constexpr double kRingConfirmation = AnsweringRules::kShortestRing;
    static constexpr double kReadinessTimeout = 15.0;
    static constexpr double kActiveCallConfirmation = 30.0;
    static constexpr double kConversationLimit = 1200.0;
    static constexpr double kCooldown = 8.0;
    static constexpr int kLostCallTicks = 5;
    static constexpr int kMaxAudioRestarts = 2;
    static constexpr double kPostAnswerCheck = 1.5;
    static constexpr double kAICheckTimeout = 15.0;
    // How long an ending call waits for the bilan of a response still being generated.
    static constexpr double kResponseSettle = 3.0;
    static constexpr int kLogLines = 50;
    // At the time limit, how long the AI's goodbye may take before the call is hung up.
    static constexpr double kGoodbyeBound = 10.0;
    // A call we hang up is watched on the following ticks: pressed again while the phone
    // still shows it, at most this many presses in all, and taken as ended after this many
    // ticks in a row without it.
    static constexpr int kHangUpPresses = 3;
    static constexpr int kHangUpQuietTicks = 3;

    // Loads settings and history, binds the realtime callbacks, starts the one-second tick
    // and listens for the computer going to sleep. Standby is off.
    explicit AppModel(AppDependencies dependencies, QObject* parent = nullptr);
    ~AppModel() override;

    // --- Operations -------------------------------------------------------------------
    // Session log: short local time, " · ", text; newest first.
    // The session log's entry point; QObject's event dispatch stays reachable beside it.
    using QObject::event;
    Q_INVOKABLE void event(const QString& text);

    // Standby and the call lifecycle.
    Q_INVOKABLE void toggleArmed();
    // One second of the standby loop: the guided setup's share, then the conversation under
    // way or, without one, the watch for a ringing call.
    Q_INVOKABLE void tick();
    // `action` runs once the AI is ready and the audio path is open (answering the call).
    void begin(bool phoneMode, const QString& caller, std::function<Status()> action);
    Q_INVOKABLE void sessionReady();
    Q_INVOKABLE void fail(const QString& message);
    // Ends the conversation under way, in this order:
    //   1. stop: the audio bridge stops;
    //   2. wind-down: the steps added with addWindDownStep run one after another while the
    //      AI session is still open, each bounded on the model's clock;
    //   3. close: the AI session closes, the computer's default devices come back;
    //   4. save: the record goes into the history, the recording is finished.
    // Without wind-down steps everything happens before finish() returns; with them, `busy`
    // stays true until the last step is done or timed out. finish() during the wind-down
    // skips the steps left and closes at once.
    Q_INVOKABLE void finish();

    // A wind-down step: does its work with the AI session still open, may fill in the record
    // about to be saved, and calls `done` once (later calls and calls after the bound are
    // ignored). Steps run in the order they were added.
    using WindDownStep = std::function<void(CallRecord& record, std::function<void()> done)>;
    void addWindDownStep(double boundSeconds, WindDownStep step);

    // AI connection check; with `armAfter` a success arms the switchboard. Neither test
    // conversation starts while it runs.
    Q_INVOKABLE void verifyAI(bool armAfter);
    // Abandons a check under way (the key, model or voice it was checking changed): it
    // neither arms nor reports.
    Q_INVOKABLE void cancelCheck();

    // Manager intervention.
    Q_INVOKABLE void toggleIntervention();

    // Test conversations.
    Q_INVOKABLE void startTest();
    Q_INVOKABLE void dialTestNumber();
    Q_INVOKABLE void takeCurrentCall();
    Q_INVOKABLE void openPhone();

    // Readiness.
    Q_INVOKABLE void refresh();
    // The guided setup's accessibility step: the system's prompt the first time in a run (true
    // then), nothing more afterwards (the caller shows the settings instead); then refresh().
    Q_INVOKABLE bool requestAccessibility();
    Result<SessionPlan> validate(bool phoneMode);

    // Records, settings and key (the records store does the work).
    Q_INVOKABLE void saveHistory();
    Q_INVOKABLE void addDemo();
    Q_INVOKABLE void updateNote(const QUuid& id, const QString& text);
    Q_INVOKABLE void updateDossier(const QUuid& id, const QString& name);
    Q_INVOKABLE void updateFollowUpStatus(const QUuid& id, const QString& status);
    // Deletes the call: its record, transcript file and recording (not while its recording
    // is being finished).
    Q_INVOKABLE void deleteRecord(const QUuid& id);
    void updateMessage(const QUuid& id, const CallMessage& message);
    Q_INVOKABLE void saveKey(const QString& text);
    Q_INVOKABLE void deleteKey();
    Q_INVOKABLE void saveSettings();
    Q_INVOKABLE void copyTranscript(const QUuid& id);
    Q_INVOKABLE void exportTranscript(const QUuid& id);
    Q_INVOKABLE void revealTranscript(const QUuid& id);
    Q_INVOKABLE void exportRecording(const QUuid& id);
    Q_INVOKABLE void applyVoiceStyle(const QString& text);
    void setVoiceEQ(const VoiceEQSettings& settings);
    // When to answer. Rules that do not read are refused with the message naming the field and
    // change nothing; accepted ones are saved at once and apply from the next ringing call.
    const AnsweringRules& answeringRules() const;
    Status setAnsweringRules(const AnsweringRules::Texts& texts);

    void setGuidedSetup(GuidedSetupHooks* hooks) { m_guidedSetup = hooks; }

    // --- Readers and writers ----------------------------------------------------------
    // Each writer notifies `<name>Changed()` on a real change only.
    MacAudioRoute& macRoute();

    Phase phase() const { return m_phase; }
    QString status() const { return m_status; }
    QString detail() const { return m_detail; }
    QString error() const { return m_error; }
    void setError(const QString& v) { m_error = v; }
    bool armed() const { return m_armed; }
    bool busy() const { return m_busy; }
    bool connected() const { return m_connected; }

    bool keyPresent() const { return m_keyPresent; }
    bool aiVerified() const { return m_aiVerified; }
    bool checkingAI() const { return m_checkingAI; }
    QString aiStatus() const { return m_aiStatus; }

    QList<SoundDevice> devices() const { return m_devices; }
    QString inputUID() const { return m_inputUID; }
    void setInputUID(const QString& v) { m_inputUID = v; }
    QString outputUID() const { return m_outputUID; }
    void setOutputUID(const QString& v) { m_outputUID = v; }
    QString voiceStyle() const { return m_voiceStyle; }
    QString voiceStyleStatus() const { return m_voiceStyleStatus; }
    const VoiceEQSettings& voiceEQ() const;
    QString voice() const { return m_voice; }
    // A new voice or model is not what the last check proved: see forgetAICheck().
    void setVoice(const QString& v);
    QString model() const { return m_model; }
    void setModel(const QString& v);
    // The saved model's announced shutdown, when it has one.
    std::optional<ModelRetirement> modelRetirement() const;
    // Saves the successor of a model whose shutdown is announced (one click on the Agent page).
    void adoptSuccessorModel();
    QString company() const { return m_company; }
    void setCompany(const QString& v) { m_company = v; }
    QString customInstructions() const { return m_customInstructions; }
    void setCustomInstructions(const QString& v) { m_customInstructions = v; }
    QString instructions() const;

    NativeAudioSetup& audioSetup();

    const QList<CallRecord>& records() const;
    // The record of the conversation under way; null when there is none.
    const CallRecord* current() const;
    QUuid selectedRecord() const { return m_selectedRecord; }
    void setSelectedRecord(const QUuid& v) { m_selectedRecord = v; }

    bool accessibility() const { return m_accessibility; }
    bool micAllowed() const { return m_micAllowed; }

    QStringList log() const { return m_log; }
    // Lines ever added to the log (the log keeps the latest 50).
    qint64 logLinesWritten() const { return m_logLinesWritten; }

    AudioBridge& audio();
    RealtimeClient& realtime();
    PhoneAutomation& phone();

    // The conversation under way (plain state, read by tests and the headless standby);
    // neutral values when there is none.
    QUuid generation() const;
    std::optional<double> ringSince() const { return m_ringSince; }
    double cooldownUntil() const { return m_cooldownUntil; }
    bool sawActiveCall() const;
    int missingActive() const;
    std::optional<double> callStarted() const;
    bool phoneSession() const;
    bool hasReadinessTimeout() const;
    bool hasReadyAction() const;
    bool hasConnectionProbe() const;
    // A call we hung up is still being watched until the phone no longer shows it.
    bool hangUpPending() const;

    bool intervening() const { return m_intervening; }
    QString interventionMicUID() const { return m_interventionMicUID; }
    // Persisted at once, like the two below.
    void setInterventionMicUID(const QString& v) { m_interventionMicUID = v; }
    QString interventionOutputUID() const { return m_interventionOutputUID; }
    void setInterventionOutputUID(const QString& v) { m_interventionOutputUID = v; }
    int audioRecoveryCount() const;
    std::optional<SoundDevice> sessionInput() const;
    std::optional<SoundDevice> sessionOutput() const;
    QString audioDiagnostic() const { return m_audioDiagnostic; }

    const ConversationUsage& conversationUsage() const { return m_conversationUsage; }
    bool historyReadFailed() const;
    int recordingRetentionDays() const { return m_recordingRetentionDays; }
    void setRecordingRetentionDays(int days) { m_recordingRetentionDays = days; }
    // Deletes the recordings older than the retention setting now, logging what went.
    void applyRecordingRetention();
    bool recordingEnabled() const { return m_recordingEnabled; }
    void setRecordingEnabled(bool v) { m_recordingEnabled = v; }
    bool rearmOnWake() const { return m_rearmOnWake; }
    // Persisted at once.
    void setRearmOnWake(bool v) { m_rearmOnWake = v; }
    QString phoneApp() const { return m_phoneApp; }
    void setPhoneApp(const QString& choice) { m_phoneApp = choice.trimmed(); }
    QSet<QUuid> finalizingRecordings() const { return m_finalizingRecordings; }
    bool hasRecorder() const;
    QString transcriptCopyStatus() const { return m_transcriptCopyStatus; }
    QString answeringRule() const { return m_answeringRule; }

    QStringList readinessIssues() const;
    int setupPercent() const;
    QString macTestRoute() const;
    // Where recordings are written ("<data folder>/Enregistrements").
    QString recordingsFolder() const;
    // The owner's notification and e-mail after each call (and the test e-mail).
    AfterCallNotices& afterCallNotices();

Q_SIGNALS:
    void statusChanged();
    void detailChanged();
    void errorChanged();
    void armedChanged();
    void busyChanged();
    void connectedChanged();
    void keyPresentChanged();
    void aiVerifiedChanged();
    void checkingAIChanged();
    void aiStatusChanged();
    void devicesChanged();
    void inputUIDChanged();
    void outputUIDChanged();
    void voiceStyleChanged();
    void voiceStyleStatusChanged();
    void voiceEQChanged();
    void voiceChanged();
    void modelChanged();
    void companyChanged();
    void customInstructionsChanged();
    void instructionsChanged();
    void recordsChanged();
    // The owner clicked a call's notification: the window comes forward on that call.
    void callOpenRequested(const QUuid& id);
    void currentChanged();
    void selectedRecordChanged();
    void accessibilityChanged();
    void micAllowedChanged();
    void logChanged();
    void interveningChanged();
    void interventionMicUIDChanged();
    void interventionOutputUIDChanged();
    void audioDiagnosticChanged();
    void conversationUsageChanged();
    void recordingEnabledChanged();
    void recordingRetentionDaysChanged();
    void rearmOnWakeChanged();
    void phoneAppChanged();
    void finalizingRecordingsChanged();
    void transcriptCopyStatusChanged();
    void answeringRuleChanged();
    // The rules changed (here, or read again after `vemira rules set`).
    void answeringRulesChanged();
    void readinessIssuesChanged();
    void setupPercentChanged();
    void macTestRouteChanged();

private:
    struct Parts;

    Settings& settingsStore();
    void wireDerivedNotifications();
    // At start: a saved model past its shutdown becomes its successor; one near it is noted.
    void replaceRetiredModel();
    void notifyReadiness();
    void refreshPhoneApplication();
    void bindRealtimeCallbacks();
    void bindMessageTaking();
    void appendToCurrent(const QString& speaker, const QString& text);

    // Shows `phase` with its own texts, or the ones given (a null text keeps the phase's).
    void setPhase(Phase phase, const QString& status = {}, const QString& detail = {});
    void standbyTick(double now);
    void ageRelayEvidence();

    void conversationTick(double now);
    void readyStep(const std::function<Status()>& action);
    void postAnswerCheck();
    // false when the tick must stop (the conversation was ended).
    bool audioWatchdog();
    Status restartAudio();
    // finish(), the status line then reading `status` (null: the phase's own text).
    void endConversation(const QString& status);
    // A failure of the call's audio path: that path must be proven again before it is trusted.
    void failAudio(const QString& message);
    // The caller hung up before the call was answered.
    void missedCall();
    // A failure on the AI's side: the conversation fails, unless the caller already left
    // (only the record's last touches are lost) or the manager speaks (the AI leaves alone).
    void aiFailed(const QString& message);
    // The AI leaves the call the manager took over; the call ends when either side hangs up.
    // The receptionist goes off, the status then reading `endStatus`.
    void aiLeaves(const QString& why, const QString& endStatus, const QString& whatToDo);
    // The receptionist went off without the owner asking: the owner is told, wherever they are.
    void stoppedUnasked(const QString& why, const QString& whatToDo);
    void pressHangUp();
    // One tick of the watch over a call we hung up.
    void checkHangUp();
    // The call was answered on the phone before Vemira did: the owner's, never recorded.
    void ownerAnswered();
    // Reads the rules again (another program may have changed them) and the line in force.
    void reloadAnsweringRules();
    void willSleep();
    void willPowerOff();
    void notRearmedAfterWake(const QString& why);
    void woke();
    // Watches the chosen phone application from now on (never during a conversation).
    void applyPhoneChoice();
    void runWindDown();
    void closeAndSave();
    // The answered softphone's audio through the call's devices, and back (where the platform
    // routes streams rather than driving the phone application's audio menu).
    void routePhoneAudio(qint64 processId);
    void releasePhoneAudio();
    void finishRecorder(const QUuid& id, std::shared_ptr<CallAudioRecorder> recorder);
    void recordingFinished(const QUuid& id, const Result<QString>& outcome);

    void completeAICheck(const std::optional<QString>& message, bool armAfter);
    // The key, model or voice changed: a running check stops and nothing counts as verified.
    void forgetAICheck();
    // Stops the check under way without a word from it; false when none was running.
    bool abandonCheck();
    void markLastAILineCut();
    void addResponseSettling();
    ReadinessState readinessState() const;
    QString shortTime(const QDateTime& time) const;

    Clock& m_clock;
    std::unique_ptr<Parts> d;
    GuidedSetupHooks* m_guidedSetup = nullptr;
    TaskHandlePtr m_timer;
    // The conversation under way, from begin to the end of finish.
    std::unique_ptr<Conversation> m_call;
    struct WindDown {
        double bound;
        WindDownStep step;
    };
    QList<WindDown> m_windDown;
    Phase m_phase = Phase::Paused;

    // Observable values: assigning notifies on a real change (see wireDerivedNotifications
    // for what follows from which).
    VEMIRA_OBSERVABLE(AppModel, QString, status)
    VEMIRA_OBSERVABLE(AppModel, QString, detail)
    VEMIRA_OBSERVABLE(AppModel, QString, error)
    VEMIRA_OBSERVABLE(AppModel, bool, armed)
    VEMIRA_OBSERVABLE(AppModel, bool, busy)
    VEMIRA_OBSERVABLE(AppModel, bool, connected)
    VEMIRA_OBSERVABLE(AppModel, bool, keyPresent)
    VEMIRA_OBSERVABLE(AppModel, bool, aiVerified)
    VEMIRA_OBSERVABLE(AppModel, bool, checkingAI)
    VEMIRA_OBSERVABLE(AppModel, QString, aiStatus)
    using DeviceList = QList<SoundDevice>;
    VEMIRA_OBSERVABLE(AppModel, DeviceList, devices)
    VEMIRA_OBSERVABLE(AppModel, QString, inputUID)
    VEMIRA_OBSERVABLE(AppModel, QString, outputUID)
    VEMIRA_OBSERVABLE(AppModel, QString, voiceStyle)
    VEMIRA_OBSERVABLE(AppModel, QString, voiceStyleStatus)
    VEMIRA_OBSERVABLE(AppModel, QString, voice)
    VEMIRA_OBSERVABLE(AppModel, QString, model)
    VEMIRA_OBSERVABLE(AppModel, QString, company)
    VEMIRA_OBSERVABLE(AppModel, QString, customInstructions)
    VEMIRA_OBSERVABLE(AppModel, QUuid, selectedRecord)
    VEMIRA_OBSERVABLE(AppModel, bool, accessibility)
    VEMIRA_OBSERVABLE(AppModel, bool, micAllowed)
    VEMIRA_OBSERVABLE(AppModel, bool, intervening)
    VEMIRA_OBSERVABLE(AppModel, QString, interventionMicUID)
    VEMIRA_OBSERVABLE(AppModel, QString, interventionOutputUID)
    VEMIRA_OBSERVABLE(AppModel, QString, audioDiagnostic)
    VEMIRA_OBSERVABLE_INIT(AppModel, bool, recordingEnabled, true)
    VEMIRA_OBSERVABLE_INIT(AppModel, int, recordingRetentionDays, 0)
    VEMIRA_OBSERVABLE_INIT(AppModel, bool, rearmOnWake, true)
    VEMIRA_OBSERVABLE(AppModel, QString, phoneApp)
    VEMIRA_OBSERVABLE(AppModel, QString, transcriptCopyStatus)
    VEMIRA_OBSERVABLE(AppModel, QString, answeringRule)

    // Plain values.
    QStringList m_log;
    bool m_phoneApplicationVisible = true;
    qint64 m_logLinesWritten = 0;
    std::optional<double> m_ringSince;
    bool m_armedAtSleep = false;
    // The running check was started by a wake-up: its outcome is logged.
    bool m_checkAfterWake = false;
    double m_cooldownUntil = -1e9;
    ConversationUsage m_conversationUsage;
    QSet<QUuid> m_finalizingRecordings;
    double m_nextRetention = 0; // uptime of the next daily pass over the recordings
};

} // namespace vemira
