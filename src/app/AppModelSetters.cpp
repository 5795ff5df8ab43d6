#include "app/AppModel.h"
#include "records/Settings.h"

// Property writers: each notifies only on a real change, and the derived readers
// (readiness, setup progress, composed instructions) are re-announced with their inputs.

namespace vemira {

void AppModel::notifyReadiness()
{
    Q_EMIT readinessIssuesChanged();
    Q_EMIT setupPercentChanged();
}

void AppModel::setPage(const QString& value)
{
    assign<QString>(m_page, value, &AppModel::pageChanged);
}

void AppModel::setShowSetupAssistant(bool value)
{
    assign<bool>(m_showSetupAssistant, value, &AppModel::showSetupAssistantChanged);
}

void AppModel::setSetupWaiting(bool value)
{
    assign<bool>(m_setupWaiting, value, &AppModel::setupWaitingChanged);
}

void AppModel::setShowAgentSetup(bool value)
{
    assign<bool>(m_showAgentSetup, value, &AppModel::showAgentSetupChanged);
}

void AppModel::setShowMacTest(bool value)
{
    assign<bool>(m_showMacTest, value, &AppModel::showMacTestChanged);
}

void AppModel::setMacPreparing(bool value)
{
    assign<bool>(m_macPreparing, value, &AppModel::macPreparingChanged);
}

void AppModel::setMacAudioVerified(bool value)
{
    assign<bool>(m_macAudioVerified, value, &AppModel::macAudioVerifiedChanged);
}

void AppModel::setAudioProbeActive(bool value)
{
    assign<bool>(m_audioProbeActive, value, &AppModel::audioProbeActiveChanged);
}

void AppModel::setProbeLevels(QPair<double, double> value)
{
    assign<QPair<double, double>>(m_probeLevels, value, &AppModel::probeLevelsChanged);
}

void AppModel::setMacAssistantOpen(bool value)
{
    assign<bool>(m_macAssistantOpen, value, &AppModel::macAssistantOpenChanged);
}

void AppModel::setShowOutgoingTest(bool value)
{
    assign<bool>(m_showOutgoingTest, value, &AppModel::showOutgoingTestChanged);
}

void AppModel::setOutgoingNumber(const QString& value)
{
    assign<QString>(m_outgoingNumber, value, &AppModel::outgoingNumberChanged);
}

void AppModel::setOutgoingStatus(const QString& value)
{
    assign<QString>(m_outgoingStatus, value, &AppModel::outgoingStatusChanged);
}

void AppModel::setError(const QString& value)
{
    assign<QString>(m_error, value, &AppModel::errorChanged);
}

void AppModel::setInputUID(const QString& value)
{
    if (m_inputUID == value)
        return;
    m_inputUID = value;
    Q_EMIT inputUIDChanged();
    notifyReadiness();
}

void AppModel::setOutputUID(const QString& value)
{
    if (m_outputUID == value)
        return;
    m_outputUID = value;
    Q_EMIT outputUIDChanged();
    notifyReadiness();
}

void AppModel::setVoice(const QString& value)
{
    assign<QString>(m_voice, value, &AppModel::voiceChanged);
}

void AppModel::setModel(const QString& value)
{
    assign<QString>(m_model, value, &AppModel::modelChanged);
}

void AppModel::setCompany(const QString& value)
{
    if (m_company == value)
        return;
    m_company = value;
    Q_EMIT companyChanged();
    Q_EMIT instructionsChanged();
}

void AppModel::setCustomInstructions(const QString& value)
{
    if (m_customInstructions == value)
        return;
    m_customInstructions = value;
    Q_EMIT customInstructionsChanged();
    Q_EMIT instructionsChanged();
}

void AppModel::setRoutingConfirmed(bool value)
{
    if (m_routingConfirmed == value)
        return;
    m_routingConfirmed = value;
    Q_EMIT routingConfirmedChanged();
    notifyReadiness();
}

void AppModel::setPreparingAudio(bool value)
{
    assign<bool>(m_preparingAudio, value, &AppModel::preparingAudioChanged);
}

void AppModel::setConfiguringAll(bool value)
{
    assign<bool>(m_configuringAll, value, &AppModel::configuringAllChanged);
}

void AppModel::setConfigurationStatus(const QString& value)
{
    assign<QString>(m_configurationStatus, value, &AppModel::configurationStatusChanged);
}

void AppModel::setValidatedCallID(const QUuid& value)
{
    if (m_validatedCallID == value)
        return;
    m_validatedCallID = value;
    Q_EMIT validatedCallIDChanged();
    notifyReadiness();
}

void AppModel::setRelayStatus(const QString& value)
{
    assign<QString>(m_relayStatus, value, &AppModel::relayStatusChanged);
}

void AppModel::setObservingRelay(bool value)
{
    assign<bool>(m_observingRelay, value, &AppModel::observingRelayChanged);
}

void AppModel::setTestingMicrophone(bool value)
{
    assign<bool>(m_testingMicrophone, value, &AppModel::testingMicrophoneChanged);
}

void AppModel::setMicrophoneLevel(double value)
{
    assign<double>(m_microphoneLevel, value, &AppModel::microphoneLevelChanged);
}

void AppModel::setMicrophoneStatus(const QString& value)
{
    assign<QString>(m_microphoneStatus, value, &AppModel::microphoneStatusChanged);
}

void AppModel::setRelayDeadline(const QDateTime& value)
{
    assign<QDateTime>(m_relayDeadline, value, &AppModel::relayDeadlineChanged);
}

void AppModel::setNativeAudioStatus(const QString& value)
{
    assign<QString>(m_nativeAudioStatus, value, &AppModel::nativeAudioStatusChanged);
}

void AppModel::setSelectedRecord(const QUuid& value)
{
    assign<QUuid>(m_selectedRecord, value, &AppModel::selectedRecordChanged);
}

void AppModel::setPermissionReport(const QString& value)
{
    assign<QString>(m_permissionReport, value, &AppModel::permissionReportChanged);
}

void AppModel::setStatus(const QString& value)
{
    assign<QString>(m_status, value, &AppModel::statusChanged);
}

void AppModel::setDetail(const QString& value)
{
    assign<QString>(m_detail, value, &AppModel::detailChanged);
}

void AppModel::setArmed(bool value)
{
    assign<bool>(m_armed, value, &AppModel::armedChanged);
}

void AppModel::setBusy(bool value)
{
    assign<bool>(m_busy, value, &AppModel::busyChanged);
}

void AppModel::setConnected(bool value)
{
    assign<bool>(m_connected, value, &AppModel::connectedChanged);
}

void AppModel::setAccessibility(bool value)
{
    if (m_accessibility == value)
        return;
    m_accessibility = value;
    Q_EMIT accessibilityChanged();
    notifyReadiness();
}

void AppModel::setMicAllowed(bool value)
{
    if (m_micAllowed == value)
        return;
    m_micAllowed = value;
    Q_EMIT micAllowedChanged();
    notifyReadiness();
}

void AppModel::setKeyPresent(bool value)
{
    if (m_keyPresent == value)
        return;
    m_keyPresent = value;
    Q_EMIT keyPresentChanged();
    notifyReadiness();
}

void AppModel::setAiVerified(bool value)
{
    if (m_aiVerified == value)
        return;
    m_aiVerified = value;
    Q_EMIT aiVerifiedChanged();
    notifyReadiness();
}

void AppModel::setCheckingAI(bool value)
{
    assign<bool>(m_checkingAI, value, &AppModel::checkingAIChanged);
}

void AppModel::setAiStatus(const QString& value)
{
    assign<QString>(m_aiStatus, value, &AppModel::aiStatusChanged);
}

void AppModel::setIntervening(bool value)
{
    assign<bool>(m_intervening, value, &AppModel::interveningChanged);
}

void AppModel::setAudioDiagnostic(const QString& value)
{
    assign<QString>(m_audioDiagnostic, value, &AppModel::audioDiagnosticChanged);
}

void AppModel::setLastRelayEvidence(const QDateTime& value)
{
    if (m_lastRelayEvidence == value)
        return;
    m_lastRelayEvidence = value;
    m_relayEvidenceAged = false;
    Q_EMIT lastRelayEvidenceChanged();
}

void AppModel::setDevices(const QList<SoundDevice>& value)
{
    if (m_devices == value)
        return;
    m_devices = value;
    Q_EMIT devicesChanged();
    Q_EMIT macTestRouteChanged();
    notifyReadiness();
}

void AppModel::setInterventionMicUID(const QString& value)
{
    if (m_interventionMicUID == value)
        return;
    m_interventionMicUID = value;
    settingsStore().setInterventionMicUID(value.isEmpty() ? std::nullopt : std::optional(value));
    Q_EMIT interventionMicUIDChanged();
}

void AppModel::setInterventionOutputUID(const QString& value)
{
    if (m_interventionOutputUID == value)
        return;
    m_interventionOutputUID = value;
    settingsStore().setInterventionOutputUID(value.isEmpty() ? std::nullopt : std::optional(value));
    Q_EMIT interventionOutputUIDChanged();
}

void AppModel::setRecordingEnabled(bool value)
{
    if (m_recordingEnabled == value)
        return;
    m_recordingEnabled = value;
    settingsStore().setRecordingEnabled(value);
    Q_EMIT recordingEnabledChanged();
    Q_EMIT instructionsChanged();
}

} // namespace vemira
