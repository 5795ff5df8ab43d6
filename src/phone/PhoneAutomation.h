#pragma once

#include "core/AppError.h"
#include "core/Clock.h"
#include "phone/AccessibilityElement.h"
#include "phone/IncomingCall.h"
#include "phone/SoftphoneProfile.h"

#include <QStringList>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace vemira {

// Finds, answers and ends calls in the phone application by reading its accessibility
// tree. Every operation is synchronous, runs on the main thread and reads nothing more
// once its 1.0 s budget is spent, so a hung or huge foreign interface cannot freeze us.
// What differs between phone applications comes from their profiles.
class PhoneAutomation {
public:
    static constexpr double kBudgetSeconds = 1.0;
    static constexpr double kRootTimeout = 0.15;
    static constexpr double kReadTimeout = 0.03;
    // A press makes the application act before it answers: it gets far longer than a read.
    static constexpr double kPressTimeout = 1.0;
    static constexpr int kMaxElementsPerRoot = 600;
    static constexpr int kMaxDepth = 12;
    static constexpr int kContainerClimb = 3;

    // `searchedApplications`: see searchedPhoneApplications(); each is searched under the
    // known profile that lists it, or under the standard rules.
    PhoneAutomation(Accessibility& accessibility, Clock& clock,
                    const QStringList& searchedApplications);
    PhoneAutomation(Accessibility& accessibility, Clock& clock,
                    std::vector<SoftphoneProfile> profiles);
    ~PhoneAutomation();
    PhoneAutomation(PhoneAutomation&&) = default;
    PhoneAutomation& operator=(PhoneAutomation&&) = delete;

    // An answer button that belongs to a call offer, with the caller text.
    std::optional<IncomingCall> incoming();
    // Re-checks the offer and presses its answer button.
    Status answer(const IncomingCall& call);
    // True when a searched application shows a hang-up button.
    bool hasActiveCall();
    // Presses the first hang-up button found.
    Status hangup();
    // True when one of the searched applications is running and visible to us.
    bool anyApplicationVisible();

    // Uptime after which the running operation reads nothing more.
    double deadline() const { return m_deadline; }
    const std::vector<SoftphoneProfile>& profiles() const { return m_profiles; }

private:
    struct Entry {
        AccessibilityElementPtr element;
        int depth;
        int window; // which child of the root it lies under; -1 for the root itself
    };
    struct Root {
        const SoftphoneProfile* profile;
        AccessibilityElementPtr element;
    };
    enum class Kind { Answer, HangUp };

    bool timeRemains() const;
    void startBudget();
    std::vector<Root> roots();
    std::vector<Entry> walk(const AccessibilityElementPtr& root);
    std::vector<AccessibilityElementPtr> descendants(const AccessibilityElementPtr& root);
    QStringList labels(AccessibilityElement& element);
    bool isButton(AccessibilityElement& element);
    bool usable(AccessibilityElement& element, const SoftphoneProfile& profile, bool mustShow);
    AccessibilityElementPtr offerContainer(const AccessibilityElementPtr& button);
    AccessibilityElementPtr unnamedButton(const std::vector<Entry>& unnamed,
                                          const UnnamedButtonRule& rule,
                                          const SoftphoneProfile& profile);
    bool findButton(const Root& root, Kind kind,
                    const std::function<bool(const AccessibilityElementPtr&, bool unnamed)>& take);
    std::optional<IncomingCall> offer(const SoftphoneProfile& profile,
                                      const AccessibilityElementPtr& button);
    // The button and the name of the application it belongs to (the first application
    // seen when there is no button).
    std::pair<AccessibilityElementPtr, QString> firstHangUpButton();

    Accessibility& m_accessibility;
    Clock& m_clock;
    std::vector<SoftphoneProfile> m_profiles;
    double m_deadline = 0;
};

} // namespace vemira
