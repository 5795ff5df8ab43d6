#include "setup/Readiness.h"

#include "core/PlatformWording.h"
#include "records/ModelCatalogue.h"

namespace vemira::setup {

namespace {

const SoundDevice* findByUid(const QList<SoundDevice>& devices, const QString& uid, bool wantInput)
{
    for (const SoundDevice& d : devices) {
        if (d.uid == uid && (wantInput ? d.input : d.output))
            return &d;
    }
    return nullptr;
}

const SoundDevice* findById(const QList<SoundDevice>& devices, std::optional<quint32> id,
                            bool wantInput)
{
    if (!id)
        return nullptr;
    for (const SoundDevice& d : devices) {
        if (d.id == *id && (wantInput ? d.input : d.output))
            return &d;
    }
    return nullptr;
}

// Space and tab only: a model name ending in a line break is a typing slip we keep visible.
QString trimBlanks(const QString& text)
{
    qsizetype start = 0;
    qsizetype end = text.size();
    auto blank = [](QChar c) { return c == QLatin1Char(' ') || c == QLatin1Char('\t'); };
    while (start < end && blank(text.at(start)))
        ++start;
    while (end > start && blank(text.at(end - 1)))
        --end;
    return text.mid(start, end - start);
}

} // namespace

QString noPhoneApplicationLabel()
{
    return QStringLiteral("Ouvrir l’application de téléphonie (Twinkle, GNOME Calls…)");
}

QString noPhoneApplicationMessage()
{
    return QStringLiteral(
        "Aucune application de téléphonie visible : ouvrez Twinkle ou GNOME Calls. Déjà "
        "ouverte ? Quittez-la et relancez-la : une application ne se montre que si "
        "l’accessibilité était active à son démarrage, et Vemira vient de l’activer. Pour "
        "une autre application : vemira standby --phone-app NOM.");
}

QString modelRetirementLabel(const QString& model, const QDate& today)
{
    const auto retirement = ModelCatalogue::retirement(model, today);
    if (!retirement || !retirement->soon || retirement->retired)
        return QString();
    return QStringLiteral("Passer au modèle ") + retirement->successor + QStringLiteral(" (") +
           model + QStringLiteral(" s’arrête le ") + frenchDate(retirement->shutdown) +
           QLatin1Char(')');
}

QString modelRetirementNotice(const QString& model, const QDate& today)
{
    const auto retirement = ModelCatalogue::retirement(model, today);
    if (!retirement || !retirement->soon || retirement->retired)
        return QString();
    return QStringLiteral("Le modèle ") + model + QStringLiteral(" sera arrêté par OpenAI le ") +
           frenchDate(retirement->shutdown) + QStringLiteral(" : passez à ") +
           retirement->successor + QStringLiteral(" (page Agent).");
}

QString modelReplacedNotice(const QString& model)
{
    const RealtimeModelInfo* info = ModelCatalogue::find(model);
    if (!info || !info->shutdown)
        return QString();
    return QStringLiteral("Le modèle ") + model +
           QStringLiteral(" est arrêté par OpenAI depuis le ") + frenchDate(*info->shutdown) +
           QStringLiteral(" : remplacé par ") + info->successor + QLatin1Char('.');
}

QStringList readinessIssues(const ReadinessState& state)
{
    QStringList issues;
    if (!BrelianDevices::pair(state.devices))
        issues << PlatformWording::current().devicesIssue;
    if (!state.accessibility)
        issues << QStringLiteral("Autoriser le décrochage dans Accessibilité");
    else if (!state.phoneApplicationVisible)
        issues << noPhoneApplicationLabel();
    if (!state.micAllowed)
        issues << QStringLiteral("Autoriser l’accès audio");
    if (!state.routingConfirmed)
        issues << QStringLiteral("Configurer et tester le son");
    if (const QString retiring = modelRetirementLabel(state.model.trimmed(), state.today);
        !retiring.isEmpty())
        issues << retiring;
    if (!state.keyPresent)
        issues << QStringLiteral("Enregistrer la clé IA");
    else if (!state.aiVerified)
        issues << QStringLiteral("Vérifier la connexion IA");
    return issues;
}

Result<SessionPlan> validate(const ReadinessState& state, bool phoneMode,
                             const ValidationSources& sources)
{
    if (!state.micAllowed)
        return AppError(QStringLiteral(
            "Autorisez le microphone dans Réglages système → Confidentialité et sécurité."));

    const SoundDevice* input = nullptr;
    const SoundDevice* output = nullptr;
    if (phoneMode) {
        input = findByUid(state.devices, state.inputUID, true);
        output = findByUid(state.devices, state.outputUID, false);
    } else {
        input = findById(state.devices,
                         sources.defaultInputID ? sources.defaultInputID() : std::nullopt, true);
        output =
            findById(state.devices,
                     sources.defaultOutputID ? sources.defaultOutputID() : std::nullopt, false);
    }
    if (!input || !output) {
        return AppError(
            phoneMode ? QStringLiteral("Choisissez une entrée et une sortie audio dans Connexions.")
                      : PlatformWording::current().defaultDevicesMissing);
    }

    if (state.preparingAudio || state.testingMicrophone || state.observingRelay)
        return AppError(QStringLiteral("Patientez pendant la configuration audio."));

    if (phoneMode) {
        if (!state.accessibility)
            return AppError(QStringLiteral(
                "Autorisez Vemira dans Accessibilité pour détecter et décrocher les appels."));
        if (input->id == output->id || !state.routingConfirmed)
            return AppError(
                QStringLiteral("Cliquez sur Configurer et tester le son dans Connexions "
                               "avant d’activer le standard."));
    }

    QString key;
    if (sources.readKey) {
        Result<std::optional<QString>> stored = sources.readKey();
        if (!stored)
            return stored.error();
        if (stored.value())
            key = *stored.value();
    }
    if (key.isEmpty())
        return AppError(QStringLiteral(
            "Aucune clé n’est enregistrée. Saisissez votre clé existante dans Connexions."));

    if (trimBlanks(state.model).isEmpty())
        return AppError(QStringLiteral("Le modèle IA doit être renseigné."));

    return SessionPlan{*input, *output, key};
}

std::array<bool, 4> setupSteps(const ReadinessState& state)
{
    return {
        BrelianDevices::pair(state.devices).has_value(),
        state.accessibility && state.micAllowed,
        state.keyPresent && state.aiVerified,
        state.routingConfirmed && state.testCallValidated,
    };
}

int setupPercent(const bool* steps, int count)
{
    if (count <= 0)
        return 0;
    int done = 0;
    for (int i = 0; i < count; ++i)
        done += steps[i] ? 1 : 0;
    return done * 100 / count;
}

int setupPercent(const ReadinessState& state)
{
    const auto steps = setupSteps(state);
    return setupPercent(steps.data(), static_cast<int>(steps.size()));
}

} // namespace vemira::setup
