#pragma once

#include "phone/AccessibilityElement.h"

#include <QString>

namespace vemira {

// A call offered by the phone application: its answer button and who calls.
struct IncomingCall {
    AccessibilityElementPtr button;
    // The number read around the offer, as written, or "Identité à confirmer".
    QString caller;
    // The caller's name when the offer shows one (a SIP display name); empty otherwise.
    QString callerName;
    // The profile the offer was found under, and whether its button was recognised by its
    // place rather than by a label (it is then re-checked by its state).
    QString profileId;
    bool unnamedButton = false;
};

} // namespace vemira
