#pragma once

#include "audio/SoundDevice.h"
#include "core/AppError.h"

#include <QDate>
#include <QList>
#include <QString>
#include <QStringList>
#include <array>
#include <functional>
#include <optional>

namespace vemira {

// The part of the application model's state that decides whether a conversation may start.
struct ReadinessState {
    QList<SoundDevice> devices;
    QString inputUID;
    QString outputUID;
    bool micAllowed = false;
    bool accessibility = false;
    bool routingConfirmed = false;
    bool keyPresent = false;
    bool aiVerified = false;
    bool preparingAudio = false;
    bool testingMicrophone = false;
    bool observingRelay = false;
    QString model;
    // The day it is, for the model's announced shutdown.
    QDate today;
    // The guided setup's proof that a whole test call went through.
    bool testCallValidated = false;
    // A phone application where calls are looked for is running and readable (always true
    // where the platform's own Phone application is used).
    bool phoneApplicationVisible = true;
};

// The devices and key a conversation will use.
struct SessionPlan {
    SoundDevice input;
    SoundDevice output;
    QString key;
};

// How validation reads what lives outside the state: the system's default devices
// (the Mac-mode route) and the stored API key (nullopt when no key file exists).
struct ValidationSources {
    std::function<std::optional<quint32>()> defaultInputID;
    std::function<std::optional<quint32>()> defaultOutputID;
    std::function<Result<std::optional<QString>>()> readKey;
};

namespace setup {

// The readiness label, and the session log's explanation, when no phone application can be
// seen (Linux softphones).
QString noPhoneApplicationLabel();
QString noPhoneApplicationMessage();

// The readiness label, and the session log's line, for a saved model whose shutdown is near;
// empty when it is not (or has no announced shutdown).
QString modelRetirementLabel(const QString& model, const QDate& today);
QString modelRetirementNotice(const QString& model, const QDate& today);
// The session log's line when the saved model, shut down, was replaced at start.
QString modelReplacedNotice(const QString& model);

// The action labels the main page lists under "Le standard ne peut pas encore répondre",
// in display order; empty when everything is ready.
QStringList readinessIssues(const ReadinessState& state);

// The checks every conversation passes before it starts, in their fixed order; the first
// failure wins. The caller refreshes `state` from the platform first.
Result<SessionPlan> validate(const ReadinessState& state, bool phoneMode,
                             const ValidationSources& sources);

// The main page's setup progression: "Installer le son", "Autoriser le Mac",
// "Connecter l’IA", "Audio du téléphone".
std::array<bool, 4> setupSteps(const ReadinessState& state);
int setupPercent(const bool* steps, int count);
int setupPercent(const ReadinessState& state);

} // namespace setup
} // namespace vemira
