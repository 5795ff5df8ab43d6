#include "app/AppModel.h"
#include "app/AppModelParts.h"
#include "core/PlatformWording.h"

#include <QUrl>

namespace vemira {

void AppModel::startTest()
{
    const bool setupWorking = (m_guidedSetup && m_guidedSetup->isWorking()) || m_configuringAll ||
                              m_preparingAudio || m_macPreparing || m_testingMicrophone ||
                              m_observingRelay;
    // A running AI check would arm the receptionist in the middle of the test.
    if (m_call || m_armed || m_checkingAI || setupWorking)
        return;
    if (!m_macAudioVerified) {
        m_macAssistantOpen = true;
        if (m_guidedSetup)
            m_guidedSetup->openMacAssistant();
        return;
    }
    m_error = QString();
    refresh();
    if (Status prepared = d->macRoute->prepare(m_devices, *d->dependencies.audioSystem)) {
        m_error = prepared->message();
        return;
    }
    begin(false, PlatformWording::current().computerConversation, nullptr);
    if (!m_call)
        d->macRoute->restore();
}

QString AppModel::macTestRoute() const
{
    AudioSystem& system = *d->dependencies.audioSystem;
    auto nameOf = [this](const Result<std::uint32_t>& id,
                         bool wantInput) -> std::optional<QString> {
        if (!id)
            return std::nullopt;
        for (const SoundDevice& device : m_devices.value()) {
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
    if (m_call || m_armed)
        return;
    const QString number = m_outgoingNumber.value().trimmed();
    static const QString accepted = QStringLiteral("+0123456789 .()-");
    const bool foreign =
        std::any_of(number.begin(), number.end(), [](QChar c) { return !accepted.contains(c); });
    if (number.isEmpty() || foreign) {
        m_outgoingStatus = QStringLiteral("Saisissez un numéro de téléphone valide.");
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
        m_error = plan.error().message();
        return;
    }
    const PlatformWording& wording = PlatformWording::current();
    setOutgoingStatus(d->dependencies.workspace->openUrl(address) ? wording.dialStarted
                                                                  : wording.dialRefused);
}

void AppModel::takeCurrentCall()
{
    if (m_call || m_checkingAI)
        return;
    if (!d->phone->hasActiveCall()) {
        setOutgoingStatus(PlatformWording::current().noActiveCall);
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

} // namespace vemira
