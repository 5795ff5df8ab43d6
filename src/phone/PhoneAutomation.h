#pragma once

#include "core/AppError.h"
#include "core/Clock.h"
#include "phone/AccessibilityElement.h"
#include "phone/IncomingCall.h"

#include <QStringList>
#include <optional>
#include <vector>

namespace vemira {

// Finds, answers and ends calls in the phone application by reading its accessibility
// tree. Every operation is synchronous, runs on the main thread and reads nothing more
// once its 1.0 s budget is spent, so a hung or huge foreign interface cannot freeze us.
class PhoneAutomation {
public:
    static constexpr double kBudgetSeconds = 1.0;
    static constexpr double kRootTimeout = 0.15;
    static constexpr double kReadTimeout = 0.03;
    static constexpr int kMaxElementsPerRoot = 600;
    static constexpr int kMaxDepth = 12;
    static constexpr int kContainerClimb = 3;

    // `searchedApplications`: see searchedPhoneApplications().
    PhoneAutomation(Accessibility& accessibility, Clock& clock, QStringList searchedApplications);

    // An answer button that belongs to a call offer, with the caller text.
    std::optional<IncomingCall> incoming();
    // Re-checks the offer and presses its answer button.
    Status answer(const IncomingCall& call);
    // True when a searched application shows a hang-up button.
    bool hasActiveCall();
    // Presses the first hang-up button found.
    Status hangup();

    // Uptime after which the running operation reads nothing more.
    double deadline() const { return m_deadline; }

private:
    struct Entry {
        AccessibilityElementPtr element;
        int depth;
    };
    bool timeRemains() const;
    void startBudget();
    std::vector<AccessibilityElementPtr> roots();
    std::vector<AccessibilityElementPtr> descendants(const AccessibilityElementPtr& root);
    QStringList labels(AccessibilityElement& element);
    bool isButton(AccessibilityElement& element);
    AccessibilityElementPtr offerContainer(const AccessibilityElementPtr& button);
    AccessibilityElementPtr firstHangUpButton();

    Accessibility& m_accessibility;
    Clock& m_clock;
    QStringList m_searchedApplications;
    double m_deadline = 0;
};

} // namespace vemira
