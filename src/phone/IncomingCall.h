#pragma once

#include "phone/AccessibilityElement.h"

#include <QString>

namespace vemira {

// A call offered by the phone application: its answer button and who calls.
struct IncomingCall {
    AccessibilityElementPtr button;
    // The number read around the offer, as written, or "Identité à confirmer".
    QString caller;
};

} // namespace vemira
