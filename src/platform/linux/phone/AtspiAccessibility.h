#pragma once

#include "phone/AccessibilityElement.h"
#include "phone/SoftphoneProfile.h"

#include <QHash>
#include <QStringList>

typedef struct _AtspiAccessible AtspiAccessible;

namespace vemira {

class ChangeWatch;

// AT-SPI (libatspi) backend of the accessibility-element interface. Applications are
// matched by their accessible name, case-insensitively. Every request is a blocking D-Bus
// call bounded by the messaging timeout last set. Main thread only.
class AtspiAccessibility final : public Accessibility {
public:
    // Shared with every element handed out, so that their own request loops stop too.
    using Deadline = std::shared_ptr<std::function<bool()>>;

    AtspiAccessibility();
    ~AtspiAccessibility() override;

    // The first call switches the desktop's accessibility on.
    bool isTrusted() override;
    // Switches it on again (the user may have turned it off) and answers isTrusted().
    bool requestTrust() override;
    std::vector<AccessibilityElementPtr> applicationRoots(const QStringList& names) override;
    std::vector<std::pair<QString, AccessibilityElementPtr>>
    namedApplicationRoots(const QStringList& names) override;
    void setDeadline(std::function<bool()> timeRemains) override;
    // Counted from the applications' events as they reach the main thread's event loop.
    std::optional<quint64> structureChanges(AccessibilityElement* root) override;
    // Linux softphones have no audio menu to drive: nothing here is opened.
    bool canOpenApplication(const QString&) override { return false; }
    void openApplication(const QString&, std::function<void()> done) override { done(); }

    // Wraps an accessible, taking over the caller's reference.
    static AccessibilityElementPtr adopt(AtspiAccessible* accessible, Deadline deadline);

private:
    bool timeRemains() const;

    bool m_initialised = false;
    bool m_switchedOn = false;
    Deadline m_deadline;
    std::unique_ptr<ChangeWatch> m_changes;
    QHash<QString, QString> m_applicationNames; // by unique bus name
};

// The applications of the known softphones, plus the names in VEMIRA_PHONE_APPS
// (comma-separated), searched under the standard rules.
QStringList linuxPhoneApplications(const QByteArray& extraNames);

} // namespace vemira
