#pragma once

#include "core/AppError.h"
#include "core/Clock.h"
#include "phone/AccessibilityElement.h"
#include "phone/IncomingCall.h"
#include "phone/SoftphoneProfile.h"

#include <QStringList>
#include <atomic>
#include <functional>
#include <future>
#include <optional>
#include <utility>
#include <vector>

namespace vemira {

// Finds, answers and ends calls in the phone application by reading its accessibility
// tree. Every operation is synchronous, runs on the main thread and reads nothing more
// once its 1.0 s budget is spent, so a hung or huge foreign interface cannot freeze us.
// What differs between phone applications comes from their profiles.
// A walk of a whole tree costs hundreds of requests: the buttons that matter and the texts
// around an offer are remembered per application and only they are read again. A tree is
// walked again at once when the platform reports a change of structure there (or cannot
// report any), and once more at the next look, a tree caught changing having perhaps
// answered only in part. kFullLookSeconds after its last walk it is walked again in the
// background as well, kSliceSeconds per search for a ring, in case a change went unreported.
// Where the platform reads from any thread, every walk is made on a thread of its own with a
// budget of its own, and taken at the first look after it ended: meanwhile the buttons of the
// last walk are read again as they are. incoming() and hasActiveCall() then wait only for a
// tree never walked or one whose remembered button went stale; hangup() waits, within its
// budget, for a walk of the tree as it is now.
class PhoneAutomation {
public:
    static constexpr double kBudgetSeconds = 1.0;
    static constexpr double kFullLookSeconds = 10.0;
    static constexpr double kSliceSeconds = 0.002;
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
        const SoftphoneProfile* profile = nullptr;
        AccessibilityElementPtr element;
    };
    // A walk of one tree, made in one go or a slice at a time: the buttons that matter, in
    // walk order.
    struct Walk {
        Walk() = default;
        explicit Walk(AccessibilityElementPtr root) : stack{{std::move(root), 0, -1}} {}
        std::vector<Entry> stack;
        int listed = 0;
        int windows = 0;
        bool whole = false; // walked to the end within its budget (away from the main thread)
        std::vector<Entry> answers, hangUps, unnamed;
    };
    // What one application showed at its last walk.
    struct Sight {
        Root root;
        std::optional<quint64> changes; // the platform's count before the walk
        bool walked = false;            // or listed while the applications changed: walked again
        bool trusted = false;           // walked to the end while standing still
        bool stale = false;             // a remembered button no longer read as one
        double walkedAt = 0;
        Walk seen;
        std::optional<Walk> background;
        // The elements around each answer button that was taken for an offer.
        std::vector<std::pair<AccessibilityElementPtr, std::vector<AccessibilityElementPtr>>>
            surroundings;
        std::future<Walk> walking;             // a walk away from the main thread
        std::optional<quint64> walkingChanges; // the platform's count when it began
        std::shared_ptr<std::atomic<bool>> stopWalking;
    };
    enum class Kind { Answer, HangUp };

    bool timeRemains() const;
    void startBudget();
    std::vector<Root> roots();
    // The remembered applications, listed again when the list may have changed.
    std::vector<Sight>& look();
    // `now`: where walks are made away from the main thread, the tree as it is now is waited
    // for.
    Sight& see(Sight& sight, bool sliced, bool now = false);
    // see() where walks are made away from the main thread; `now`: the tree as it is now.
    Sight& seeFromAfar(Sight& sight, const std::optional<quint64>& changes, bool now);
    std::future<Walk> walkAway(Sight& sight);
    void takeWalk(Sight& sight, const std::optional<quint64>& changes);
    // Before a press: a softphone answers requests on the thread that handles the press.
    void stopWalks();
    // One element of a walk: its children, then its role and labels. False once it is over.
    // `timeRemains`: the walk's budget.
    static bool step(Walk& walk, const SoftphoneProfile& profile,
                     const std::function<bool()>& timeRemains);
    void adopt(Sight& sight, Walk&& walk);
    // Walked to the end within the budget.
    bool isWhole(const Walk& walk) const;
    std::vector<Entry> walk(const AccessibilityElementPtr& root);
    std::vector<AccessibilityElementPtr> descendants(const AccessibilityElementPtr& root);
    QStringList labels(AccessibilityElement& element);
    static QStringList labels(AccessibilityElement& element,
                              const std::function<bool()>& timeRemains);
    static bool isButton(AccessibilityElement& element, const std::function<bool()>& timeRemains);
    bool usable(AccessibilityElement& element, const SoftphoneProfile& profile, bool mustShow);
    bool stalled(double askedAt) const;
    AccessibilityElementPtr offerContainer(const AccessibilityElementPtr& button);
    AccessibilityElementPtr unnamedButton(const std::vector<Entry>& unnamed,
                                          const UnnamedButtonRule& rule,
                                          const SoftphoneProfile& profile);
    bool findButton(Sight& sight, Kind kind,
                    const std::function<bool(const AccessibilityElementPtr&, bool unnamed)>& take);
    std::optional<IncomingCall> offer(Sight& sight, const AccessibilityElementPtr& button);
    // The button and the name of the application it belongs to (the first application
    // seen when there is no button).
    std::pair<AccessibilityElementPtr, QString> firstHangUpButton(bool now);

    Accessibility& m_accessibility;
    Clock& m_clock;
    std::vector<SoftphoneProfile> m_profiles;
    double m_deadline = 0;
    std::vector<Sight> m_sights;
    std::optional<quint64> m_listChanges; // the platform's count before the last listing
    bool m_listed = false;
    bool m_listTrusted = false;
};

} // namespace vemira
