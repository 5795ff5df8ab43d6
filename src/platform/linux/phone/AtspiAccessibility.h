#pragma once

#include "phone/AccessibilityElement.h"
#include "phone/SoftphoneProfile.h"

#include <QHash>
#include <QStringList>

// libatspi's own name for its object, declared here to keep its headers out of ours.
typedef struct _AtspiAccessible AtspiAccessible; // NOLINT(bugprone-reserved-identifier)

namespace vemira {

class ChangeWatch;

// AT-SPI (libatspi) backend of the accessibility-element interface. Applications are
// matched by their accessible name, case-insensitively. Every request is a blocking D-Bus
// call bounded by the messaging timeout last set on its element. The object itself belongs
// to the main thread; its elements may be read from any thread, libatspi being entered by one
// thread at a time (a request waits for the one under way), and libatspi's own messages are
// handled on the main thread under the same lock, never by the event loop.
class AtspiAccessibility final : public Accessibility {
public:
    AtspiAccessibility();
    ~AtspiAccessibility() override;

    // The first call switches the desktop's accessibility on.
    bool isTrusted() override;
    // Switches it on again (the user may have turned it off) and answers isTrusted().
    bool requestTrust() override;
    std::vector<AccessibilityElementPtr> applicationRoots(const QStringList& names) override;
    std::vector<std::pair<QString, AccessibilityElementPtr>>
    namedApplicationRoots(const QStringList& names) override;
    // For the calling thread's requests.
    void setDeadline(std::function<bool()> timeRemains) override;
    bool readsFromAnyThread() const override { return true; }
    // Counted from the applications' events as they reach the main thread's event loop.
    std::optional<quint64> structureChanges(AccessibilityElement* root) override;
    // Linux softphones have no audio menu to drive: nothing here is opened.
    bool canOpenApplication(const QString&) override { return false; }
    void openApplication(const QString&, std::function<void()> done) override { done(); }

    // Wraps an accessible, taking over the caller's reference.
    static AccessibilityElementPtr adopt(AtspiAccessible* accessible);

private:
    // Handles what libatspi received meanwhile (applications gone, its deferred work).
    void handleLibraryMessages();

    bool m_initialised = false;
    bool m_switchedOn = false;
    std::unique_ptr<ChangeWatch> m_changes;
    QHash<QString, QString> m_applicationNames; // by unique bus name
};

// The applications of the known softphones, plus the names in VEMIRA_PHONE_APPS
// (comma-separated), searched under the standard rules.
QStringList linuxPhoneApplications(const QByteArray& extraNames);

} // namespace vemira
