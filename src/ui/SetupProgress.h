#pragma once

#include "app/AppModel.h"
#include "setup/Readiness.h"
#include "ui/UiTexts.h"

#include <array>

namespace vemira::ui {

// The four setup steps as the model's state has them now (same rule as setupPercent).
inline std::array<bool, 4> setupStepsOf(const AppModel& model)
{
    ReadinessState state;
    state.devices = model.devices();
    state.inputUID = model.inputUID();
    state.outputUID = model.outputUID();
    state.micAllowed = model.micAllowed();
    state.accessibility = model.accessibility();
    state.routingConfirmed = model.routingConfirmed();
    state.keyPresent = model.keyPresent();
    state.aiVerified = model.aiVerified();
    state.model = model.model();
    state.testCallValidated = !model.validatedCallID().isNull();
    return setup::setupSteps(state);
}

// "✓ Installer le son · ○ Autoriser le Mac · …"
inline QString setupStepsLine(const AppModel& model)
{
    const auto done = setupStepsOf(model);
    const QStringList names = texts::setupSteps();
    QStringList parts;
    for (int i = 0; i < names.size(); ++i)
        parts << (done[size_t(i)] ? QStringLiteral("✓ ") : QStringLiteral("○ ")) + names[i];
    return parts.join(QStringLiteral("   "));
}

} // namespace vemira::ui
