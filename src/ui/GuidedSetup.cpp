#include "ui/GuidedSetup.h"

#include "core/PlatformWording.h"
#include "phone/IncomingCall.h"
#include "phone/NativeAudioSetup.h"
#include "phone/PhoneAutomation.h"
#include "phone/SoftphoneProfile.h"
#include "setup/SoundServerSetup.h"

#include <QDesktopServices>
#include <QLocale>
#include <QUrl>
#include <algorithm>

namespace vemira::ui {

namespace {

QString shortTime(const QDateTime& time)
{
    return QLocale().toString(time.time(), QLocale::ShortFormat);
}

} // namespace

GuidedSetup::GuidedSetup(AppModel& model, Clock& clock, SetupProbes probes, QObject* parent)
    : QObject(parent), m_model(model), m_clock(clock), m_probes(std::move(probes))
{
    if (m_probes.virtualDevices)
        m_soundServer = std::make_unique<SoundServerSetup>(*m_probes.virtualDevices,
                                                           m_probes.phoneRouting.get());
    m_model.setGuidedSetup(this);
}

GuidedSetup::~GuidedSetup()
{
    *m_lifetime = false;
    m_model.setGuidedSetup(nullptr);
}

void GuidedSetup::configureSound()
{
    if (m_model.busy() || m_model.preparingAudio())
        return;
    if (!BrelianDevices::pair(m_model.devices())) {
        m_model.refresh();
        if (!BrelianDevices::pair(m_model.devices())) {
            m_model.setConfigurationStatus(PlatformWording::current().devicesMissing);
            return;
        }
    }
    if (!m_probes.route) {
        m_model.setConfigurationStatus(QStringLiteral("Le test du son n’est pas disponible."));
        return;
    }
    // The virtual pair becomes the call's devices: they are what the probe proves.
    const auto pair = BrelianDevices::pair(m_model.devices());
    m_model.setInputUID(pair->call.uid);
    m_model.setOutputUID(pair->voice.uid);
    m_model.setPreparingAudio(true);
    m_model.setAudioProbeActive(true);
    m_model.setRoutingConfirmed(false);
    m_model.setConfigurationStatus(
        QStringLiteral("Test des deux circuits audio en cours… (environ 15 secondes)"));
    m_model.event(QStringLiteral("Test du son lancé"));
    std::weak_ptr<bool> alive = m_lifetime;
    m_probes.route(m_model.devices(), [this, alive](Status failure) {
        if (alive.expired())
            return;
        m_model.setPreparingAudio(false);
        m_model.setAudioProbeActive(false);
        if (failure) {
            m_model.setConfigurationStatus(failure->message());
            m_model.event(failure->message());
            return;
        }
        m_model.saveSettings();
        m_model.setRoutingConfirmed(true);
        const QString ok =
            QStringLiteral("Son configuré · les deux circuits transmettent le signal de test");
        m_model.setConfigurationStatus(ok);
        m_model.event(ok);
    });
}

void GuidedSetup::checkDevices()
{
    m_model.refresh();
    if (!m_soundServer || m_model.preparingAudio())
        return;
    const SetupOutcome outcome = m_soundServer->check();
    m_model.setConfigurationStatus(outcome.text);
}

void GuidedSetup::createDevices()
{
    if (!m_soundServer || m_model.busy() || m_model.preparingAudio())
        return;
    const SetupOutcome outcome = m_soundServer->create();
    m_model.refresh();
    m_model.setConfigurationStatus(outcome.text);
    m_model.event(outcome.text);
}

void GuidedSetup::removeDevices()
{
    if (!m_soundServer || m_model.preparingAudio())
        return;
    if (m_model.busy() || m_model.armed()) {
        m_model.setConfigurationStatus(QStringLiteral(
            "Mettez le standard en pause avant de supprimer les périphériques audio."));
        return;
    }
    const SetupOutcome outcome = m_soundServer->remove();
    if (outcome.ok)
        m_model.setRoutingConfirmed(false); // the proof was about the devices just removed
    m_model.refresh();
    m_model.setConfigurationStatus(outcome.text);
    m_model.event(outcome.text);
}

bool GuidedSetup::devicesPersistent() const
{
    return m_soundServer && m_soundServer->persistent();
}

void GuidedSetup::setDevicesPersistent(bool keep)
{
    if (!m_soundServer || keep == m_soundServer->persistent())
        return;
    const SetupOutcome outcome = m_soundServer->setPersistent(keep);
    m_model.setConfigurationStatus(outcome.text);
    m_model.event(outcome.text);
}

void GuidedSetup::checkPhoneAudio()
{
    if (!m_soundServer || m_model.busy() || m_model.configuringAll())
        return;
    m_model.refresh();
    const auto pair = BrelianDevices::pair(m_model.devices());
    if (!pair) {
        m_model.setNativeAudioStatus(PlatformWording::current().devicesMissing);
        return;
    }
    // The softphone is not known by process here (no call yet): by its program and
    // application names, which its call streams carry.
    PhoneStreamOwner owner;
    for (const SoftphoneProfile& profile : softphones::known())
        owner.names << profile.id << profile.name << profile.applications;
    owner.names.removeDuplicates();
    const SetupOutcome outcome =
        m_soundServer->tryPhoneRouting(owner, pair->call.uid, pair->voice.uid);
    m_model.setNativeAudioStatus(outcome.text);
    m_model.event(outcome.text);
}

std::optional<SoundDevice> GuidedSetup::macMicrophone() const
{
    const QList<SoundDevice>& devices = m_model.devices();
    for (const SoundDevice& d : devices) {
        if (d.input && !m_model.interventionMicUID().isEmpty() &&
            d.uid == m_model.interventionMicUID())
            return d;
    }
    const auto pair = BrelianDevices::pair(devices);
    for (const SoundDevice& d : devices) {
        if (d.input && (!pair || (d.id != pair->call.id && d.id != pair->voice.id)))
            return d;
    }
    return std::nullopt;
}

void GuidedSetup::testMicrophone()
{
    if (m_model.busy() || m_model.testingMicrophone())
        return;
    m_model.refresh();
    const auto microphone = macMicrophone();
    if (!microphone || !m_probes.microphone) {
        m_model.setMicrophoneStatus(QStringLiteral("Microphone indisponible."));
        return;
    }
    m_model.setTestingMicrophone(true);
    m_model.setMacPreparing(true);
    m_model.setMicrophoneLevel(0);
    m_model.setMicrophoneStatus(QStringLiteral("Parlez pendant cinq secondes…"));
    std::weak_ptr<bool> alive = m_lifetime;
    m_probes.microphone(
        microphone->id,
        [this, alive](double peak) {
            if (!alive.expired())
                m_model.setMicrophoneLevel(qMax(m_model.microphoneLevel() * 0.8, peak));
        },
        [this, alive](Result<bool> heard) {
            if (alive.expired())
                return;
            m_model.setTestingMicrophone(false);
            m_model.setMacPreparing(false);
            if (!heard.ok()) {
                m_model.setMicrophoneStatus(heard.error().message());
                return;
            }
            if (heard.value()) {
                m_model.setMicrophoneStatus(QStringLiteral("Le microphone capte du son"));
                m_model.setMacAudioVerified(true);
            } else {
                m_model.setMicrophoneStatus(QStringLiteral(
                    "Aucun son détecté : parlez plus près et vérifiez le microphone"));
            }
        });
}

void GuidedSetup::openAccessibilitySettings()
{
    // The first time, the system's own prompt (it lists Vemira and opens the settings itself).
    if (m_model.requestAccessibility())
        return;
#if defined(Q_OS_MACOS)
    QDesktopServices::openUrl(QUrl(QStringLiteral(
        "x-apple.systempreferences:com.apple.preference.security?Privacy_Accessibility")));
#endif
}

void GuidedSetup::openMicrophoneSettings()
{
#if defined(Q_OS_MACOS)
    QDesktopServices::openUrl(QUrl(QStringLiteral(
        "x-apple.systempreferences:com.apple.preference.security?Privacy_Microphone")));
#endif
    m_model.refresh();
}

void GuidedSetup::prepareLink()
{
    // Only the macOS Phone application has an audio menu of its own to drive.
    if (!PlatformWording::current().phoneAudioMenu || m_model.busy() || m_model.configuringAll())
        return;
    m_model.setConfiguringAll(true);
    m_model.setNativeAudioStatus(QStringLiteral("Préparation de Téléphone…"));
    std::weak_ptr<bool> alive = m_lifetime;
    m_model.audioSetup().prepare([this, alive](Status failure) {
        if (alive.expired())
            return;
        m_model.setConfiguringAll(false);
        const QString text = failure ? failure->message()
                                     : QStringLiteral("Téléphone utilise les deux périphériques "
                                                      "Vemira");
        m_model.setNativeAudioStatus(text);
        m_model.event(text);
    });
}

void GuidedSetup::phoneBackToSystem()
{
    if (!PlatformWording::current().phoneAudioMenu || m_model.busy() || m_model.configuringAll())
        return;
    m_model.setConfiguringAll(true);
    std::weak_ptr<bool> alive = m_lifetime;
    m_model.audioSetup().useSystemAudio([this, alive](Status failure) {
        if (alive.expired())
            return;
        m_model.setConfiguringAll(false);
        const QString text = failure ? failure->message()
                                     : QStringLiteral("Téléphone utilise à nouveau le son système");
        m_model.setNativeAudioStatus(text);
        m_model.event(text);
    });
}

void GuidedSetup::observeTestCall()
{
    m_model.setObservingRelay(true);
    m_model.setRelayDeadline(m_clock.now().addSecs(qint64(kRelayWaitSeconds)));
    m_model.setRelayStatus(QStringLiteral(
        "En attente d’un appel : appelez votre numéro depuis un autre téléphone, sans décrocher."));
}

void GuidedSetup::stopObserving()
{
    m_model.setObservingRelay(false);
    m_model.setRelayDeadline(QDateTime());
}

void GuidedSetup::observeRelay()
{
    if (!m_model.observingRelay())
        return;
    const QDateTime now = m_clock.now();
    if (m_model.phone().incoming()) {
        m_model.setLastRelayEvidence(now);
        m_model.setObservingRelay(false);
        m_model.setRelayDeadline(QDateTime());
        m_model.setRelayStatus(QStringLiteral("Appel détecté à ") + shortTime(now) +
                               QStringLiteral(" · la liaison avec le téléphone fonctionne"));
        m_model.event(PlatformWording::current().relayDetectedEvent);
        return;
    }
    if (m_model.relayDeadline().isValid() && now > m_model.relayDeadline()) {
        m_model.setObservingRelay(false);
        m_model.setRelayDeadline(QDateTime());
        m_model.setRelayStatus(PlatformWording::current().relayTimeout);
    }
}

void GuidedSetup::resumeSetupIfReady()
{
    lookForValidatedCall();
}

// The last step is proven by a real call: a phone conversation taken since this setup
// session began in which the caller was heard.
void GuidedSetup::lookForValidatedCall()
{
    if (!m_model.validatedCallID().isNull() || m_model.busy())
        return;
    const QDateTime since = m_model.setupSessionStart();
    for (const CallRecord& record : m_model.records()) {
        if (since.isValid() && record.date.toDateTime() < since)
            break; // newest first: the rest is older
        if (record.kind != QStringLiteral("Appel"))
            continue;
        const bool callerHeard = std::any_of(
            record.transcript.begin(), record.transcript.end(),
            [](const TranscriptLine& line) { return line.speaker == Speaker::caller(); });
        if (callerHeard) {
            m_model.setValidatedSetup(QStringLiteral("Appel de test ") + record.reference() +
                                      QStringLiteral(" validé"));
            m_model.setValidatedCallID(record.id);
            m_model.event(m_model.validatedSetup());
            return;
        }
    }
}

bool GuidedSetup::isWorking() const
{
    return m_model.preparingAudio() || m_model.testingMicrophone() || m_model.configuringAll() ||
           m_model.macPreparing();
}

void GuidedSetup::openMacAssistant()
{
    m_model.setMacAssistantOpen(true);
    Q_EMIT macAssistantRequested();
}

} // namespace vemira::ui
