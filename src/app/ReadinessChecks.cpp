#include "app/AppModel.h"
#include "app/AppModelParts.h"

namespace vemira {

void AppModel::refresh()
{
    m_devices = d->dependencies.audioSystem->devices();
    m_accessibility = d->dependencies.accessibility->isTrusted();
    refreshPhoneApplication();
    m_micAllowed = d->dependencies.workspace->microphoneAuthorized();
    m_keyPresent = d->keyStore.exists();
}

// A Linux softphone is seen only if it runs and was started with accessibility on; the
// user is told once each time it goes out of sight. The Phone application of macOS is
// opened by the system when a call comes: there is nothing to tell.
void AppModel::refreshPhoneApplication()
{
#if defined(Q_OS_LINUX)
    const bool visible = m_accessibility && d->phone && d->phone->anyApplicationVisible();
    if (visible == m_phoneApplicationVisible)
        return;
    m_phoneApplicationVisible = visible;
    if (!visible && m_accessibility)
        event(setup::noPhoneApplicationMessage());
    notifyReadiness();
#endif
}

bool AppModel::requestAccessibility()
{
    // Once a run: the prompt also lists Vemira in the Accessibility settings, and asking again
    // would only stack dialogs while the user is in System Settings.
    const bool prompt = !d->accessibilityRequested;
    if (prompt) {
        d->accessibilityRequested = true;
        d->dependencies.accessibility->requestTrust();
    }
    refresh();
    return prompt;
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
    s.today = m_clock.now().date();
    s.testCallValidated = !m_validatedCallID.value().isNull();
    s.phoneApplicationVisible = m_phoneApplicationVisible;
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
    sources.readKey = [this] { return d->keyStore.readKey(); };
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

AfterCallNotices& AppModel::afterCallNotices()
{
    return *d->notices;
}

QString AppModel::recordingsFolder() const
{
    return d->folder.recordingsFolder();
}

} // namespace vemira
