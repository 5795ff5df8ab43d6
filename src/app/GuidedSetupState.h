#pragma once

#include "app/ObservableValue.h"

#include <QDateTime>
#include <QObject>
#include <QPair>
#include <QString>
#include <QUuid>

namespace vemira {

// What the guided setup and the setup screens show and remember while the application
// runs: panels, the steps' progress texts and what has been proven about the audio paths.
// None of it drives a call; the application model builds on it.
class GuidedSetupState : public QObject {
    Q_OBJECT

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
    Q_PROPERTY(bool routingConfirmed READ routingConfirmed WRITE setRoutingConfirmed NOTIFY
                   routingConfirmedChanged)
    Q_PROPERTY(bool preparingAudio READ preparingAudio WRITE setPreparingAudio NOTIFY
                   preparingAudioChanged)
    Q_PROPERTY(bool configuringAll READ configuringAll WRITE setConfiguringAll NOTIFY
                   configuringAllChanged)
    Q_PROPERTY(QString configurationStatus READ configurationStatus WRITE setConfigurationStatus
                   NOTIFY configurationStatusChanged)
    // Null UUID when no test call has been validated; null QDateTime = none.
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
    Q_PROPERTY(QDateTime relayDeadline READ relayDeadline WRITE setRelayDeadline NOTIFY
                   relayDeadlineChanged)
    Q_PROPERTY(QDateTime lastRelayEvidence READ lastRelayEvidence WRITE setLastRelayEvidence NOTIFY
                   lastRelayEvidenceChanged)
    Q_PROPERTY(QString nativeAudioStatus READ nativeAudioStatus WRITE setNativeAudioStatus NOTIFY
                   nativeAudioStatusChanged)
    Q_PROPERTY(QString permissionReport READ permissionReport WRITE setPermissionReport NOTIFY
                   permissionReportChanged)

public:
    // `setupSessionStart` is when this run of the application began.
    explicit GuidedSetupState(const QDateTime& sessionStart, QObject* parent = nullptr);

    QString page() const { return m_page; }
    void setPage(const QString& v) { m_page = v; }
    bool showSetupAssistant() const { return m_showSetupAssistant; }
    void setShowSetupAssistant(bool v) { m_showSetupAssistant = v; }
    bool setupWaiting() const { return m_setupWaiting; }
    void setSetupWaiting(bool v) { m_setupWaiting = v; }
    bool showAgentSetup() const { return m_showAgentSetup; }
    void setShowAgentSetup(bool v) { m_showAgentSetup = v; }
    bool showMacTest() const { return m_showMacTest; }
    void setShowMacTest(bool v) { m_showMacTest = v; }
    bool macPreparing() const { return m_macPreparing; }
    void setMacPreparing(bool v) { m_macPreparing = v; }
    bool macAudioVerified() const { return m_macAudioVerified; }
    void setMacAudioVerified(bool v) { m_macAudioVerified = v; }
    bool audioProbeActive() const { return m_audioProbeActive; }
    void setAudioProbeActive(bool v) { m_audioProbeActive = v; }
    QPair<double, double> probeLevels() const { return m_probeLevels; }
    void setProbeLevels(QPair<double, double> v) { m_probeLevels = v; }
    bool macAssistantOpen() const { return m_macAssistantOpen; }
    void setMacAssistantOpen(bool v) { m_macAssistantOpen = v; }
    bool showOutgoingTest() const { return m_showOutgoingTest; }
    void setShowOutgoingTest(bool v) { m_showOutgoingTest = v; }
    QString outgoingNumber() const { return m_outgoingNumber; }
    void setOutgoingNumber(const QString& v) { m_outgoingNumber = v; }
    QString outgoingStatus() const { return m_outgoingStatus; }
    void setOutgoingStatus(const QString& v) { m_outgoingStatus = v; }
    bool routingConfirmed() const { return m_routingConfirmed; }
    void setRoutingConfirmed(bool v) { m_routingConfirmed = v; }
    bool preparingAudio() const { return m_preparingAudio; }
    void setPreparingAudio(bool v) { m_preparingAudio = v; }
    bool configuringAll() const { return m_configuringAll; }
    void setConfiguringAll(bool v) { m_configuringAll = v; }
    QString configurationStatus() const { return m_configurationStatus; }
    void setConfigurationStatus(const QString& v) { m_configurationStatus = v; }
    QUuid validatedCallID() const { return m_validatedCallID; }
    void setValidatedCallID(const QUuid& v) { m_validatedCallID = v; }
    QString relayStatus() const { return m_relayStatus; }
    void setRelayStatus(const QString& v) { m_relayStatus = v; }
    bool observingRelay() const { return m_observingRelay; }
    void setObservingRelay(bool v) { m_observingRelay = v; }
    bool testingMicrophone() const { return m_testingMicrophone; }
    void setTestingMicrophone(bool v) { m_testingMicrophone = v; }
    double microphoneLevel() const { return m_microphoneLevel; }
    void setMicrophoneLevel(double v) { m_microphoneLevel = v; }
    QString microphoneStatus() const { return m_microphoneStatus; }
    void setMicrophoneStatus(const QString& v) { m_microphoneStatus = v; }
    QDateTime relayDeadline() const { return m_relayDeadline; }
    void setRelayDeadline(const QDateTime& v) { m_relayDeadline = v; }
    QDateTime lastRelayEvidence() const { return m_lastRelayEvidence; }
    void setLastRelayEvidence(const QDateTime& v) { m_lastRelayEvidence = v; }
    QString nativeAudioStatus() const { return m_nativeAudioStatus; }
    void setNativeAudioStatus(const QString& v) { m_nativeAudioStatus = v; }
    QString setupWaitTarget() const { return m_setupWaitTarget; }
    void setSetupWaitTarget(const QString& value) { m_setupWaitTarget = value; }
    QString validatedSetup() const { return m_validatedSetup; }
    void setValidatedSetup(const QString& value) { m_validatedSetup = value; }
    bool startupAssistantPresented() const { return m_startupAssistantPresented; }
    void setStartupAssistantPresented(bool value) { m_startupAssistantPresented = value; }
    QDateTime setupSessionStart() const { return m_setupSessionStart; }
    QString permissionReport() const { return m_permissionReport; }
    void setPermissionReport(const QString& v) { m_permissionReport = v; }

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
    void permissionReportChanged();

protected:
    using LevelPair = QPair<double, double>;
    VEMIRA_OBSERVABLE_INIT(GuidedSetupState, QString, page, QStringLiteral("Accueil"))
    VEMIRA_OBSERVABLE(GuidedSetupState, bool, showSetupAssistant)
    VEMIRA_OBSERVABLE(GuidedSetupState, bool, setupWaiting)
    VEMIRA_OBSERVABLE(GuidedSetupState, bool, showAgentSetup)
    VEMIRA_OBSERVABLE(GuidedSetupState, bool, showMacTest)
    VEMIRA_OBSERVABLE(GuidedSetupState, bool, macPreparing)
    VEMIRA_OBSERVABLE(GuidedSetupState, bool, macAudioVerified)
    VEMIRA_OBSERVABLE(GuidedSetupState, bool, audioProbeActive)
    VEMIRA_OBSERVABLE_INIT(GuidedSetupState, LevelPair, probeLevels, LevelPair(0.0, 0.0))
    VEMIRA_OBSERVABLE(GuidedSetupState, bool, macAssistantOpen)
    VEMIRA_OBSERVABLE(GuidedSetupState, bool, showOutgoingTest)
    VEMIRA_OBSERVABLE(GuidedSetupState, QString, outgoingNumber)
    VEMIRA_OBSERVABLE(GuidedSetupState, QString, outgoingStatus)
    VEMIRA_OBSERVABLE(GuidedSetupState, bool, routingConfirmed)
    VEMIRA_OBSERVABLE(GuidedSetupState, bool, preparingAudio)
    VEMIRA_OBSERVABLE(GuidedSetupState, bool, configuringAll)
    VEMIRA_OBSERVABLE(GuidedSetupState, QString, configurationStatus)
    VEMIRA_OBSERVABLE(GuidedSetupState, QUuid, validatedCallID)
    VEMIRA_OBSERVABLE(GuidedSetupState, QString, relayStatus)
    VEMIRA_OBSERVABLE(GuidedSetupState, bool, observingRelay)
    VEMIRA_OBSERVABLE(GuidedSetupState, bool, testingMicrophone)
    VEMIRA_OBSERVABLE(GuidedSetupState, double, microphoneLevel)
    VEMIRA_OBSERVABLE(GuidedSetupState, QString, microphoneStatus)
    VEMIRA_OBSERVABLE(GuidedSetupState, QDateTime, relayDeadline)
    VEMIRA_OBSERVABLE(GuidedSetupState, QDateTime, lastRelayEvidence)
    VEMIRA_OBSERVABLE(GuidedSetupState, QString, nativeAudioStatus)
    VEMIRA_OBSERVABLE(GuidedSetupState, QString, permissionReport)

    bool m_startupAssistantPresented = false;
    QString m_setupWaitTarget;
    QString m_validatedSetup;
    const QDateTime m_setupSessionStart;
    // Set when the relay evidence got older than a minute and the status said so.
    bool m_relayEvidenceAged = false;
};

} // namespace vemira
