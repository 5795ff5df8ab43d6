#pragma once

#include "app/AppDependencies.h"
#include "core/AppError.h"
#include "core/Clock.h"
#include "records/CallRecord.h"
#include "records/ConversationUsage.h"
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
class AppModel : public QObject {
    Q_OBJECT

    // Screens and panels.
    Q_PROPERTY(QString page READ page WRITE setPage NOTIFY pageChanged)
    Q_PROPERTY(bool showSetupAssistant READ showSetupAssistant WRITE setShowSetupAssistant NOTIFY
                   showSetupAssistantChanged)
    Q_PROPERTY(bool setupWaiting READ setupWaiting WRITE setSetupWaiting NOTIFY setupWaitingChanged)
    Q_PROPERTY(bool showAgentSetup READ showAgentSetup WRITE setShowAgentSetup NOTIFY
                   showAgentSetupChanged)
    Q_PROPERTY(bool showMacTest READ showMacTest WRITE setShowMacTest NOTIFY showMacTestChanged)
    Q_PROPERTY(bool macPreparing READ macPreparing WRITE setMacPreparing NOTIFY macPreparingChanged)
    Q_PROPERTY(bool macAudioVerified READ macAudioVerified WRITE setMacAudioVerified NOTIFY
                   macAudioVerifiedChanged)
    Q_PROPERTY(bool audioProbeActive READ audioProbeActive WRITE setAudioProbeActive NOTIFY
                   audioProbeActiveChanged)
    Q_PROPERTY(QPair<double, double> probeLevels READ probeLevels WRITE setProbeLevels NOTIFY
                   probeLevelsChanged)
    Q_PROPERTY(bool macAssistantOpen READ macAssistantOpen WRITE setMacAssistantOpen NOTIFY
                   macAssistantOpenChanged)
    Q_PROPERTY(bool showOutgoingTest READ showOutgoingTest WRITE setShowOutgoingTest NOTIFY
                   showOutgoingTestChanged)
    Q_PROPERTY(QString outgoingNumber READ outgoingNumber WRITE setOutgoingNumber NOTIFY
                   outgoingNumberChanged)
    Q_PROPERTY(QString outgoingStatus READ outgoingStatus WRITE setOutgoingStatus NOTIFY
                   outgoingStatusChanged)

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

    // Guided setup.
    Q_PROPERTY(bool routingConfirmed READ routingConfirmed WRITE setRoutingConfirmed NOTIFY
                   routingConfirmedChanged)
    Q_PROPERTY(bool preparingAudio READ preparingAudio WRITE setPreparingAudio NOTIFY
                   preparingAudioChanged)
    Q_PROPERTY(bool configuringAll READ configuringAll WRITE setConfiguringAll NOTIFY
                   configuringAllChanged)
    Q_PROPERTY(QString configurationStatus READ configurationStatus WRITE setConfigurationStatus
                   NOTIFY configurationStatusChanged)
    // Null UUID when no test call has been validated.
    Q_PROPERTY(QUuid validatedCallID READ validatedCallID WRITE setValidatedCallID NOTIFY
                   validatedCallIDChanged)
    Q_PROPERTY(QDateTime setupSessionStart READ setupSessionStart CONSTANT)
    Q_PROPERTY(QString relayStatus READ relayStatus WRITE setRelayStatus NOTIFY relayStatusChanged)
    Q_PROPERTY(bool observingRelay READ observingRelay WRITE setObservingRelay NOTIFY
                   observingRelayChanged)
    Q_PROPERTY(bool testingMicrophone READ testingMicrophone WRITE setTestingMicrophone NOTIFY
                   testingMicrophoneChanged)
    Q_PROPERTY(double microphoneLevel READ microphoneLevel WRITE setMicrophoneLevel NOTIFY
                   microphoneLevelChanged)
    Q_PROPERTY(QString microphoneStatus READ microphoneStatus WRITE setMicrophoneStatus NOTIFY
                   microphoneStatusChanged)
    // Null QDateTime = none.
    Q_PROPERTY(QDateTime relayDeadline READ relayDeadline WRITE setRelayDeadline NOTIFY
                   relayDeadlineChanged)
    Q_PROPERTY(QDateTime lastRelayEvidence READ lastRelayEvidence WRITE setLastRelayEvidence NOTIFY
                   lastRelayEvidenceChanged)
    Q_PROPERTY(QString nativeAudioStatus READ nativeAudioStatus WRITE setNativeAudioStatus NOTIFY
                   nativeAudioStatusChanged)

    // Records. `records`, `current`: see the getters below. Null UUID = none selected.
    Q_PROPERTY(QUuid selectedRecord READ selectedRecord WRITE setSelectedRecord NOTIFY
                   selectedRecordChanged)

    // Permissions.
    Q_PROPERTY(bool accessibility READ accessibility NOTIFY accessibilityChanged)
    Q_PROPERTY(QString permissionReport READ permissionReport WRITE setPermissionReport NOTIFY
                   permissionReportChanged)
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
    Q_PROPERTY(bool recordingEnabled READ recordingEnabled WRITE setRecordingEnabled NOTIFY
                   recordingEnabledChanged)
    Q_PROPERTY(
        QString transcriptCopyStatus READ transcriptCopyStatus NOTIFY transcriptCopyStatusChanged)

    // Readiness (derived).
    Q_PROPERTY(QStringList readinessIssues READ readinessIssues NOTIFY readinessIssuesChanged)
    Q_PROPERTY(int setupPercent READ setupPercent NOTIFY setupPercentChanged)
    Q_PROPERTY(QString macTestRoute READ macTestRoute NOTIFY macTestRouteChanged)

public:
    // Constants of the standby loop and the conversation lifecycle, in seconds.
    static constexpr double kTickPeriod = 1.0;
    static constexpr double kRingConfirmation = 3.0;
    static constexpr double kReadinessTimeout = 15.0;
    static constexpr double kActiveCallConfirmation = 30.0;
    static constexpr double kConversationLimit = 1200.0;
    static constexpr double kCooldown = 8.0;
    static constexpr int kLostCallTicks = 5;
    static constexpr int kMaxAudioRestarts = 2;
    static constexpr double kPostAnswerCheck = 1.5;
    static constexpr double kAICheckTimeout = 15.0;
    static constexpr int kLogLines = 50;

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
    Q_INVOKABLE void tick();
    // `action` runs once the AI is ready and the audio path is open (answering the call).
    void begin(bool phoneMode, const QString& caller, std::function<Status()> action);
    Q_INVOKABLE void sessionReady();
    Q_INVOKABLE void fail(const QString& message);
    Q_INVOKABLE void finish();

    // AI connection check; with `armAfter` a success arms the switchboard.
    Q_INVOKABLE void verifyAI(bool armAfter);

    // Manager intervention.
    Q_INVOKABLE void toggleIntervention();

    // Test conversations.
    Q_INVOKABLE void startTest();
    Q_INVOKABLE void dialTestNumber();
    Q_INVOKABLE void takeCurrentCall();
    Q_INVOKABLE void openPhone();

    // Readiness.
    Q_INVOKABLE void refresh();
    Result<SessionPlan> validate(bool phoneMode);

    // Records, settings and key (the records store does the work).
    Q_INVOKABLE void saveHistory();
    Q_INVOKABLE void addDemo();
    Q_INVOKABLE void updateNote(const QUuid& id, const QString& text);
    Q_INVOKABLE void updateDossier(const QUuid& id, const QString& name);
    Q_INVOKABLE void updateFollowUpStatus(const QUuid& id, const QString& status);
    Q_INVOKABLE void saveKey(const QString& text);
    Q_INVOKABLE void deleteKey();
    Q_INVOKABLE void saveSettings();
    Q_INVOKABLE void copyTranscript(const QUuid& id);
    Q_INVOKABLE void exportTranscript(const QUuid& id);
    Q_INVOKABLE void revealTranscript(const QUuid& id);
    Q_INVOKABLE void exportRecording(const QUuid& id);
    Q_INVOKABLE void applyVoiceStyle(const QString& text);
    void setVoiceEQ(const VoiceEQSettings& settings);

    void setGuidedSetup(GuidedSetupHooks* hooks) { m_guidedSetup = hooks; }

    // --- Readers ----------------------------------------------------------------------
    QString page() const { return m_page; }
    bool showSetupAssistant() const { return m_showSetupAssistant; }
    bool startupAssistantPresented() const { return m_startupAssistantPresented; }
    void setStartupAssistantPresented(bool value) { m_startupAssistantPresented = value; }
    bool setupWaiting() const { return m_setupWaiting; }
    QString setupWaitTarget() const { return m_setupWaitTarget; }
    void setSetupWaitTarget(const QString& value) { m_setupWaitTarget = value; }
    bool showAgentSetup() const { return m_showAgentSetup; }
    bool showMacTest() const { return m_showMacTest; }
    bool macPreparing() const { return m_macPreparing; }
    bool macAudioVerified() const { return m_macAudioVerified; }
    bool audioProbeActive() const { return m_audioProbeActive; }
    QPair<double, double> probeLevels() const { return m_probeLevels; }
    bool macAssistantOpen() const { return m_macAssistantOpen; }
    MacAudioRoute& macRoute();
    bool showOutgoingTest() const { return m_showOutgoingTest; }
    QString outgoingNumber() const { return m_outgoingNumber; }
    QString outgoingStatus() const { return m_outgoingStatus; }

    QString status() const { return m_status; }
    QString detail() const { return m_detail; }
    QString error() const { return m_error; }
    bool armed() const { return m_armed; }
    bool busy() const { return m_busy; }
    bool connected() const { return m_connected; }

    bool keyPresent() const { return m_keyPresent; }
    bool aiVerified() const { return m_aiVerified; }
    bool checkingAI() const { return m_checkingAI; }
    QString aiStatus() const { return m_aiStatus; }

    const QList<SoundDevice>& devices() const { return m_devices; }
    QString inputUID() const { return m_inputUID; }
    QString outputUID() const { return m_outputUID; }
    QString voiceStyle() const { return m_voiceStyle; }
    QString voiceStyleStatus() const { return m_voiceStyleStatus; }
    const VoiceEQSettings& voiceEQ() const;
    QString voice() const { return m_voice; }
    QString model() const { return m_model; }
    QString company() const { return m_company; }
    QString customInstructions() const { return m_customInstructions; }
    QString instructions() const;

    bool routingConfirmed() const { return m_routingConfirmed; }
    bool preparingAudio() const { return m_preparingAudio; }
    bool configuringAll() const { return m_configuringAll; }
    QString configurationStatus() const { return m_configurationStatus; }
    QUuid validatedCallID() const { return m_validatedCallID; }
    QString validatedSetup() const { return m_validatedSetup; }
    void setValidatedSetup(const QString& value) { m_validatedSetup = value; }
    QDateTime setupSessionStart() const { return m_setupSessionStart; }
    QString relayStatus() const { return m_relayStatus; }
    bool observingRelay() const { return m_observingRelay; }
    bool testingMicrophone() const { return m_testingMicrophone; }
    double microphoneLevel() const { return m_microphoneLevel; }
    QString microphoneStatus() const { return m_microphoneStatus; }
    QDateTime relayDeadline() const { return m_relayDeadline; }
    QDateTime lastRelayEvidence() const { return m_lastRelayEvidence; }
    QString nativeAudioStatus() const { return m_nativeAudioStatus; }
    NativeAudioSetup& audioSetup();

    const QList<CallRecord>& records() const;
    // The record of the conversation under way.
    const std::optional<CallRecord>& current() const { return m_current; }
    QUuid selectedRecord() const { return m_selectedRecord; }

    bool accessibility() const { return m_accessibility; }
    QString permissionReport() const { return m_permissionReport; }
    bool micAllowed() const { return m_micAllowed; }

    QStringList log() const { return m_log; }

    AudioBridge& audio();
    RealtimeClient& realtime();
    PhoneAutomation& phone();

    // Call control (plain state, read by tests and the headless standby).
    QUuid generation() const { return m_generation; }
    std::optional<double> ringSince() const { return m_ringSince; }
    double cooldownUntil() const { return m_cooldownUntil; }
    bool sawActiveCall() const { return m_sawActiveCall; }
    int missingActive() const { return m_missingActive; }
    std::optional<double> callStarted() const { return m_callStarted; }
    bool phoneSession() const { return m_phoneSession; }
    bool hasReadinessTimeout() const { return m_timeout != nullptr; }
    bool hasReadyAction() const { return static_cast<bool>(m_readyAction); }
    bool hasConnectionProbe() const { return m_connectionProbe != nullptr; }

    bool intervening() const { return m_intervening; }
    QString interventionMicUID() const { return m_interventionMicUID; }
    QString interventionOutputUID() const { return m_interventionOutputUID; }
    int audioRecoveryCount() const { return m_audioRecoveryCount; }
    std::optional<SoundDevice> sessionInput() const { return m_sessionInput; }
    std::optional<SoundDevice> sessionOutput() const { return m_sessionOutput; }
    QString audioDiagnostic() const { return m_audioDiagnostic; }

    const ConversationUsage& conversationUsage() const { return m_conversationUsage; }
    bool historyReadFailed() const;
    bool recordingEnabled() const { return m_recordingEnabled; }
    QSet<QUuid> finalizingRecordings() const { return m_finalizingRecordings; }
    bool hasRecorder() const { return m_recorder != nullptr; }
    QString transcriptCopyStatus() const { return m_transcriptCopyStatus; }

    QStringList readinessIssues() const;
    int setupPercent() const;
    QString macTestRoute() const;
    // Where recordings are written ("<data folder>/Enregistrements").
    QString recordingsFolder() const;

    // --- Writers (user choices and guided setup) ----------------------------------------
    void setPage(const QString& value);
    void setShowSetupAssistant(bool value);
    void setSetupWaiting(bool value);
    void setShowAgentSetup(bool value);
    void setShowMacTest(bool value);
    void setMacPreparing(bool value);
    void setMacAudioVerified(bool value);
    void setAudioProbeActive(bool value);
    void setProbeLevels(QPair<double, double> value);
    void setMacAssistantOpen(bool value);
    void setShowOutgoingTest(bool value);
    void setOutgoingNumber(const QString& value);
    void setOutgoingStatus(const QString& value);
    void setError(const QString& value);
    void setInputUID(const QString& value);
    void setOutputUID(const QString& value);
    void setVoice(const QString& value);
    void setModel(const QString& value);
    void setCompany(const QString& value);
    void setCustomInstructions(const QString& value);
    void setRoutingConfirmed(bool value);
    void setPreparingAudio(bool value);
    void setConfiguringAll(bool value);
    void setConfigurationStatus(const QString& value);
    void setValidatedCallID(const QUuid& value);
    void setRelayStatus(const QString& value);
    void setObservingRelay(bool value);
    void setTestingMicrophone(bool value);
    void setMicrophoneLevel(double value);
    void setMicrophoneStatus(const QString& value);
    void setRelayDeadline(const QDateTime& value);
    void setLastRelayEvidence(const QDateTime& value);
    void setNativeAudioStatus(const QString& value);
    void setSelectedRecord(const QUuid& value);
    void setPermissionReport(const QString& value);
    // Persisted at once.
    void setInterventionMicUID(const QString& value);
    void setInterventionOutputUID(const QString& value);
    void setRecordingEnabled(bool value);

Q_SIGNALS:
    void pageChanged();
    void showSetupAssistantChanged();
    void setupWaitingChanged();
    void showAgentSetupChanged();
    void showMacTestChanged();
    void macPreparingChanged();
    void macAudioVerifiedChanged();
    void audioProbeActiveChanged();
    void probeLevelsChanged();
    void macAssistantOpenChanged();
    void showOutgoingTestChanged();
    void outgoingNumberChanged();
    void outgoingStatusChanged();
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
    void routingConfirmedChanged();
    void preparingAudioChanged();
    void configuringAllChanged();
    void configurationStatusChanged();
    void validatedCallIDChanged();
    void relayStatusChanged();
    void observingRelayChanged();
    void testingMicrophoneChanged();
    void microphoneLevelChanged();
    void microphoneStatusChanged();
    void relayDeadlineChanged();
    void lastRelayEvidenceChanged();
    void nativeAudioStatusChanged();
    void recordsChanged();
    void currentChanged();
    void selectedRecordChanged();
    void accessibilityChanged();
    void permissionReportChanged();
    void micAllowedChanged();
    void logChanged();
    void interveningChanged();
    void interventionMicUIDChanged();
    void interventionOutputUIDChanged();
    void audioDiagnosticChanged();
    void conversationUsageChanged();
    void recordingEnabledChanged();
    void finalizingRecordingsChanged();
    void transcriptCopyStatusChanged();
    void readinessIssuesChanged();
    void setupPercentChanged();
    void macTestRouteChanged();

private:
    struct Parts;

    template <typename T> void assign(T& field, const T& value, void (AppModel::*changed)())
    {
        if (field == value)
            return;
        field = value;
        Q_EMIT(this->*changed)();
    }
    Settings& settingsStore();
    void setStatus(const QString& value);
    void setDetail(const QString& value);
    void setArmed(bool value);
    void setBusy(bool value);
    void setConnected(bool value);
    void setAccessibility(bool value);
    void setMicAllowed(bool value);
    void setKeyPresent(bool value);
    void setAiVerified(bool value);
    void setCheckingAI(bool value);
    void setAiStatus(const QString& value);
    void setIntervening(bool value);
    void setAudioDiagnostic(const QString& value);
    void setDevices(const QList<SoundDevice>& value);
    void notifyReadiness();

    void bindRealtimeCallbacks();
    void readyStep(bool phoneMode, const std::function<Status()>& action);
    void audioWatchdog(bool& stopTick);
    Status restartAudio();
    void postAnswerCheck();
    void completeAICheck(const std::optional<QString>& message, bool armAfter);
    void appendToCurrent(const QString& speaker, const QString& text);
    void finishRecorder();
    void recordingFinished(const QUuid& id, const Result<QString>& outcome);
    ReadinessState readinessState() const;
    void ageRelayEvidence();
    QString shortTime(const QDateTime& time) const;

    Clock& m_clock;
    std::unique_ptr<Parts> d;
    GuidedSetupHooks* m_guidedSetup = nullptr;
    TaskHandlePtr m_timer;

    QString m_page = QStringLiteral("Accueil");
    bool m_showSetupAssistant = false;
    bool m_startupAssistantPresented = false;
    bool m_setupWaiting = false;
    QString m_setupWaitTarget;
    bool m_showAgentSetup = false;
    bool m_showMacTest = false;
    bool m_macPreparing = false;
    bool m_macAudioVerified = false;
    bool m_audioProbeActive = false;
    QPair<double, double> m_probeLevels{0.0, 0.0};
    bool m_macAssistantOpen = false;
    bool m_showOutgoingTest = false;
    QString m_outgoingNumber;
    QString m_outgoingStatus;

    QString m_status;
    QString m_detail;
    QString m_error;
    bool m_armed = false;
    bool m_busy = false;
    bool m_connected = false;

    bool m_keyPresent = false;
    bool m_aiVerified = false;
    bool m_checkingAI = false;
    QString m_aiStatus;
    std::unique_ptr<RealtimeClient> m_connectionProbe;
    TaskHandlePtr m_connectionTimeout;

    QList<SoundDevice> m_devices;
    QString m_inputUID;
    QString m_outputUID;
    QString m_voiceStyle;
    QString m_voiceStyleStatus;
    QString m_voice;
    QString m_model;
    QString m_company;
    QString m_customInstructions;

    bool m_routingConfirmed = false;
    bool m_preparingAudio = false;
    bool m_configuringAll = false;
    QString m_configurationStatus;
    QUuid m_validatedCallID;
    QString m_validatedSetup;
    QDateTime m_setupSessionStart;
    QString m_relayStatus;
    bool m_observingRelay = false;
    bool m_testingMicrophone = false;
    double m_microphoneLevel = 0;
    QString m_microphoneStatus;
    QDateTime m_relayDeadline;
    QDateTime m_lastRelayEvidence;
    bool m_relayEvidenceAged = false;
    QString m_nativeAudioStatus;

    std::optional<CallRecord> m_current;
    QUuid m_selectedRecord;

    bool m_accessibility = false;
    QString m_permissionReport;
    bool m_micAllowed = false;

    QStringList m_log;

    TaskHandlePtr m_timeout;
    QUuid m_generation;
    std::optional<double> m_ringSince;
    double m_cooldownUntil = -1e9;
    bool m_sawActiveCall = false;
    int m_missingActive = 0;
    std::optional<double> m_callStarted;
    bool m_phoneSession = false;
    std::function<void()> m_readyAction;
    TaskHandlePtr m_postAnswerCheck;

    bool m_intervening = false;
    QString m_interventionMicUID;
    QString m_interventionOutputUID;
    int m_audioRecoveryCount = 0;
    std::optional<SoundDevice> m_sessionInput;
    std::optional<SoundDevice> m_sessionOutput;
    QString m_audioDiagnostic;

    ConversationUsage m_conversationUsage;
    bool m_recordingEnabled = true;
    QSet<QUuid> m_finalizingRecordings;
    std::shared_ptr<CallAudioRecorder> m_recorder;
    QString m_transcriptCopyStatus;
};

} // namespace vemira
