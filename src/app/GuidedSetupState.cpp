#include "app/GuidedSetupState.h"

#include "core/PlatformWording.h"

namespace vemira {

GuidedSetupState::GuidedSetupState(const QDateTime& sessionStart, QObject* parent)
    : QObject(parent), m_setupSessionStart(sessionStart)
{
    m_relayStatus = QStringLiteral("Aucun appel relayé observé pour l’instant");
    m_configurationStatus = QStringLiteral("Configuration audio non lancée");
    m_microphoneStatus = QStringLiteral("Micro non testé");
    m_nativeAudioStatus = PlatformWording::current().phoneAudioUnset;
    // New evidence is young again.
    connect(this, &GuidedSetupState::lastRelayEvidenceChanged, this,
            [this] { m_relayEvidenceAged = false; });
}

} // namespace vemira
