#include "setup/SoundServerSetup.h"

namespace vemira {

namespace {

const QString kReady = QStringLiteral("Les deux périphériques audio virtuels sont prêts.");

} // namespace

SoundServerSetup::SoundServerSetup(VirtualAudioDevices& devices, PhoneAudioRouting* routing)
    : m_devices(devices), m_routing(routing)
{}

SetupOutcome SoundServerSetup::check()
{
    if (Status missing = m_devices.check())
        return {false, missing->message()};
    return {true, kReady};
}

SetupOutcome SoundServerSetup::create()
{
    if (!m_devices.check())
        return {true, kReady};
    if (Status failed = m_devices.create())
        return {false, failed->message()};
    // What the server made is checked like what was already there. A device of ours left at
    // another format (an older run, a hand-made one) is made again rather than reported: the
    // user asked for working devices.
    if (m_devices.check()) {
        if (Status failed = m_devices.remove())
            return {false, failed->message()};
        if (Status failed = m_devices.create())
            return {false, failed->message()};
        if (Status wrong = m_devices.check())
            return {false, wrong->message()};
    }
    return {true, QStringLiteral("Périphériques audio virtuels créés : « Brelian — Appel vers "
                                 "IA » et « Brelian — IA vers appel ».")};
}

SetupOutcome SoundServerSetup::remove()
{
    if (Status failed = m_devices.remove())
        return {false, failed->message()};
    QString text = QStringLiteral(
        "Périphériques audio virtuels supprimés. Vos autres périphériques n’ont pas changé.");
    if (m_devices.persistent())
        text += QStringLiteral(" Ils reviendront au prochain démarrage du serveur de son tant que "
                               "la recréation automatique reste cochée.");
    return {true, text};
}

bool SoundServerSetup::persistent() const
{
    return m_devices.persistent();
}

SetupOutcome SoundServerSetup::setPersistent(bool keep)
{
    if (!keep) {
        if (Status failed = m_devices.forget())
            return {false, failed->message()};
        return {true, QStringLiteral("Les périphériques audio virtuels ne seront plus recréés au "
                                     "démarrage du serveur de son.")};
    }
    Result<QString> written = m_devices.persist();
    if (!written)
        return {false, written.error().message()};
    return {true, QStringLiteral("Les périphériques audio virtuels seront recréés à chaque "
                                 "démarrage du serveur de son (") +
                      written.value() + QStringLiteral(").")};
}

SetupOutcome SoundServerSetup::tryPhoneRouting(const PhoneStreamOwner& owner,
                                               const QString& callUID, const QString& voiceUID)
{
    if (Status missing = m_devices.check())
        return {false, missing->message()};
    if (!m_routing)
        return {false, QStringLiteral("Le branchement automatique du son n’est pas disponible "
                                      "sur ce système.")};
    if (m_routing->routing())
        return {false,
                QStringLiteral("Un appel est en cours : le son de l’appel passe déjà par Vemira.")};
    if (Status failed = m_routing->route(owner, callUID, voiceUID))
        return {false, failed->message()};
    m_routing->release();
    const PhoneRoutingCounts counts = m_routing->counts();
    if (counts.moved == 0)
        return {true, QStringLiteral("Les périphériques sont prêts. Votre logiciel de téléphonie "
                                     "n’a pas de son ouvert pour l’instant : il l’ouvre en "
                                     "général au décrochage, et Vemira le dirige alors vers les "
                                     "périphériques virtuels, puis le remet en place à la fin de "
                                     "l’appel.")};
    const QString moved = counts.moved == 1
                              ? QStringLiteral("1 flux dirigé vers Vemira")
                              : QStringLiteral("%1 flux dirigés vers Vemira").arg(counts.moved);
    if (counts.returned < counts.moved)
        return {false, QStringLiteral("Son du logiciel de téléphonie : ") + moved +
                           QStringLiteral(", %1 seulement remis en place. Vérifiez ses réglages "
                                          "de son.")
                               .arg(counts.returned)};
    return {true, QStringLiteral("Son du logiciel de téléphonie vérifié : ") + moved +
                      QStringLiteral(" puis remis en place. Ce sera fait ainsi à chaque appel.")};
}

} // namespace vemira
