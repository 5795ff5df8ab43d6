#pragma once

#include "phone/AccessibilityElement.h"

#include <QStringList>

typedef struct _AtspiAccessible AtspiAccessible;

namespace vemira {

// AT-SPI (libatspi) backend of the accessibility-element interface. Applications are
// matched by their accessible name, case-insensitively. Every request is a blocking D-Bus
// call bounded by the messaging timeout last set. Main thread only.
class AtspiAccessibility final : public Accessibility {
public:
    AtspiAccessibility();

    bool isTrusted() override;
    std::vector<AccessibilityElementPtr> applicationRoots(const QStringList& names) override;
    // Linux softphones have no audio menu to drive: nothing here is opened.
    bool canOpenApplication(const QString&) override { return false; }
    void openApplication(const QString&, std::function<void()> done) override { done(); }

    // Wraps an accessible, taking over the caller's reference.
    static AccessibilityElementPtr adopt(AtspiAccessible* accessible);

private:
    bool m_initialised = false;
};

// The softphones searched by default, plus the names in VEMIRA_PHONE_APPS (comma-separated).
QStringList linuxPhoneApplications(const QByteArray& extraNames);

} // namespace vemira
