#include "phone/PhoneAutomation.h"

#include "phone/CallPolicy.h"
#include "phone/LabelText.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace vemira {

namespace {

QString offerGoneMessage()
{
    return QStringLiteral("L’appel n’est plus disponible.");
}

bool anyIn(const QStringList& labels, const QStringList& table)
{
    return anyLabelIn(labels, table);
}

// Two buttons share a row when their vertical spans overlap by half the smaller height.
bool sameRow(const QRect& a, const QRect& b)
{
    const int overlap = std::min(a.bottom(), b.bottom()) - std::max(a.top(), b.top());
    return overlap * 2 >= std::min(a.height(), b.height());
}

} // namespace

PhoneAutomation::PhoneAutomation(Accessibility& accessibility, Clock& clock,
                                 const QStringList& searchedApplications)
    : PhoneAutomation(accessibility, clock, softphones::forApplications(searchedApplications))
{}

PhoneAutomation::PhoneAutomation(Accessibility& accessibility, Clock& clock,
                                 std::vector<SoftphoneProfile> profiles)
    : m_accessibility(accessibility), m_clock(clock), m_profiles(std::move(profiles))
{}

PhoneAutomation::~PhoneAutomation()
{
    stopWalks();
    m_accessibility.setDeadline({});
}

bool PhoneAutomation::timeRemains() const
{
    return m_clock.uptime() < m_deadline;
}

void PhoneAutomation::startBudget()
{
    m_deadline = m_clock.uptime() + kBudgetSeconds;
    m_accessibility.setDeadline([this] { return timeRemains(); });
}

std::vector<PhoneAutomation::Root> PhoneAutomation::roots()
{
    std::vector<Root> found;
    if (m_profiles.empty())
        return found;
    if (m_profiles.size() == 1) {
        // One listing, in the platform's order.
        for (AccessibilityElementPtr& root :
             m_accessibility.applicationRoots(m_profiles.front().applications))
            found.push_back({&m_profiles.front(), std::move(root)});
    } else {
        // Not a structured binding: clang before 16 cannot capture one in the lambda.
        for (auto& named :
             m_accessibility.namedApplicationRoots(softphones::applicationsOf(m_profiles))) {
            const QString& id = named.first;
            const auto profile =
                std::find_if(m_profiles.begin(), m_profiles.end(), [&](const auto& p) {
                    return p.applications.contains(id, Qt::CaseInsensitive);
                });
            if (profile != m_profiles.end())
                found.push_back({&*profile, std::move(named.second)});
        }
    }
    for (const Root& root : found)
        root.element->setMessagingTimeout(kRootTimeout);
    return found;
}

// The list of applications is taken again when it may have changed.
std::vector<PhoneAutomation::Sight>& PhoneAutomation::look()
{
    const std::optional<quint64> listChanges = m_accessibility.structureChanges(nullptr);
    const bool moved = m_listed && listChanges != m_listChanges;
    if (m_listTrusted && listChanges && !moved)
        return m_sights;
    // An application listed again keeps what was seen of it. One that appeared while the list
    // changed may still be building its windows: its first walk is one of a changing tree.
    std::vector<Sight> sights;
    for (Root& root : roots()) {
        const auto kept = std::find_if(m_sights.begin(), m_sights.end(), [&](const Sight& s) {
            return s.root.element && s.root.profile == root.profile &&
                   s.root.element->sameAs(*root.element);
        });
        if (kept != m_sights.end()) {
            sights.push_back(std::move(*kept));
        } else {
            Sight seen;
            seen.root = std::move(root);
            seen.walked = m_listed;
            sights.push_back(std::move(seen));
        }
    }
    m_sights = std::move(sights);
    // A list taken while it changed may lack an application still registering: taken again.
    m_listTrusted = listChanges && !moved;
    m_listChanges = listChanges;
    m_listed = true;
    return m_sights;
}

// Each application is looked at when the search reaches it: one found ringing spares the
// walks of those after it. The background walk goes on only in the standby's search for a
// ring (`sliced`), once a tick.
PhoneAutomation::Sight& PhoneAutomation::see(Sight& sight, bool sliced, bool now)
{
    const std::optional<quint64> changes =
        m_accessibility.structureChanges(sight.root.element.get());
    if (m_accessibility.readsFromAnyThread())
        return seeFromAfar(sight, changes, now);
    const auto remains = [this] { return timeRemains(); };
    const bool moved = !changes || (sight.walked && changes != sight.changes);
    if (moved || !sight.trusted || sight.stale) {
        sight.background.reset();
        Walk walk(sight.root.element);
        while (step(walk, *sight.root.profile, remains)) {
        }
        const bool whole = isWhole(walk);
        adopt(sight, std::move(walk));
        sight.changes = changes;
        sight.trusted = whole && changes && !moved;
        return sight;
    }
    if (!sliced)
        return sight;
    if (!sight.background && m_clock.uptime() - sight.walkedAt >= kFullLookSeconds)
        sight.background.emplace(sight.root.element);
    if (sight.background) {
        const double sliceEnd = m_clock.uptime() + kSliceSeconds;
        bool going = true;
        while (going && m_clock.uptime() < sliceEnd)
            going = step(*sight.background, *sight.root.profile, remains);
        if (!going) {
            Walk walk = std::move(*sight.background);
            sight.background.reset();
            const bool whole = isWhole(walk);
            adopt(sight, std::move(walk));
            sight.trusted = whole;
        }
    }
    return sight;
}

// A walk is started where the main thread would make one (or when the last is kFullLookSeconds
// old), and the buttons of the last walk serve until it ended. A tree caught changing while it
// was walked is walked again. Only a caller wanting the tree as it is `now` waits for a walk,
// within its budget, and one that was never walked is always waited for.
PhoneAutomation::Sight&
PhoneAutomation::seeFromAfar(Sight& sight, const std::optional<quint64>& changes, bool now)
{
    const auto current = [&] {
        return sight.walked && !sight.stale && changes && changes == sight.changes;
    };
    const auto waitFor = [&] {
        const auto left =
            std::chrono::duration<double>(std::max(0.0, m_deadline - m_clock.uptime()));
        return sight.walking.wait_for(left) == std::future_status::ready;
    };
    const auto mustWait = [&] { return !sight.walked || (now && !current()); };
    if (sight.walking.valid()) {
        const bool ended =
            sight.walking.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        if (ended || (mustWait() && waitFor()))
            takeWalk(sight, changes);
    }
    const bool moved = !changes || (sight.walked && changes != sight.changes);
    const bool due = m_clock.uptime() - sight.walkedAt >= kFullLookSeconds;
    if (!sight.walking.valid() && (moved || !sight.trusted || sight.stale || due)) {
        sight.walking = walkAway(sight);
        sight.walkingChanges = changes;
        if (mustWait() && waitFor())
            takeWalk(sight, changes);
    }
    return sight;
}

// The walk keeps its own copies of what it reads: the search may end, or this object go,
// while it runs (its owner then waits for it).
std::future<PhoneAutomation::Walk> PhoneAutomation::walkAway(Sight& sight)
{
    sight.stopWalking = std::make_shared<std::atomic<bool>>(false);
    return std::async(std::launch::async,
                      [&platform = m_accessibility, &clock = m_clock, element = sight.root.element,
                       profile = *sight.root.profile, stop = sight.stopWalking] {
                          const double deadline = clock.uptime() + kBudgetSeconds;
                          const std::function<bool()> remains = [&clock, deadline, stop] {
                              return !*stop && clock.uptime() < deadline;
                          };
                          platform.setDeadline(remains);
                          Walk walk(element);
                          while (step(walk, profile, remains)) {
                          }
                          walk.whole = walk.stack.empty() && walk.listed > 1 && remains();
                          platform.setDeadline({});
                          return walk;
                      });
}

// A press made while a walk asks the softphone for its elements was answered late (Twinkle
// answers both on one thread, and a request given up on is still handled): the walk is
// stopped first, and the next look walks again.
void PhoneAutomation::stopWalks()
{
    for (Sight& sight : m_sights) {
        if (!sight.walking.valid())
            continue;
        *sight.stopWalking = true;
        sight.walking.wait();
        sight.walking = {};
    }
}

void PhoneAutomation::takeWalk(Sight& sight, const std::optional<quint64>& changes)
{
    Walk walk = sight.walking.get();
    const bool whole = walk.whole;
    const std::optional<quint64> before = sight.walkingChanges;
    adopt(sight, std::move(walk));
    sight.changes = before;
    // Nothing moved while it walked: the tree is as the walk saw it.
    sight.trusted = whole && before && before == changes;
}

// An application without any window is more likely one too busy to list them (a softphone
// starting to ring): looking again costs a request or two.
bool PhoneAutomation::isWhole(const Walk& walk) const
{
    return walk.stack.empty() && walk.listed > 1 && timeRemains();
}

// Depth-first with an explicit stack: the last child pushed is visited first, so siblings
// come last to first. Elements at the depth limit are listed but not opened. Roles and
// labels are read once here.
bool PhoneAutomation::step(Walk& walk, const SoftphoneProfile& profile,
                           const std::function<bool()>& timeRemains)
{
    if (walk.stack.empty() || walk.listed >= kMaxElementsPerRoot || !timeRemains())
        return false;
    Entry entry = std::move(walk.stack.back());
    walk.stack.pop_back();
    ++walk.listed;
    if (entry.depth < kMaxDepth && timeRemains()) {
        entry.element->setMessagingTimeout(kReadTimeout);
        for (AccessibilityElementPtr& child : entry.element->children()) {
            if (child)
                walk.stack.push_back({std::move(child), entry.depth + 1,
                                      entry.depth == 0 ? walk.windows++ : entry.window});
        }
    }
    if (!isButton(*entry.element, timeRemains))
        return true;
    const QStringList read = labels(*entry.element, timeRemains);
    if (anyIn(read, profile.answerLabels))
        walk.answers.push_back(entry);
    if (anyIn(read, profile.hangUpLabels))
        walk.hangUps.push_back(entry);
    if ((profile.unnamedAnswer || profile.unnamedHangUp) && read.isEmpty())
        walk.unnamed.push_back(entry);
    return true;
}

void PhoneAutomation::adopt(Sight& sight, Walk&& walk)
{
    walk.stack.clear();
    sight.seen = std::move(walk);
    sight.surroundings.clear();
    sight.walked = true;
    sight.stale = false;
    sight.walkedAt = m_clock.uptime();
}

// In step()'s order, every element kept: the surroundings of an offer.
std::vector<PhoneAutomation::Entry> PhoneAutomation::walk(const AccessibilityElementPtr& root)
{
    std::vector<Entry> result;
    std::vector<Entry> stack{{root, 0, -1}};
    int windows = 0;
    while (!stack.empty()) {
        Entry entry = std::move(stack.back());
        stack.pop_back();
        if (int(result.size()) >= kMaxElementsPerRoot || !timeRemains())
            break;
        result.push_back(entry);
        if (entry.depth < kMaxDepth && timeRemains()) {
            entry.element->setMessagingTimeout(kReadTimeout);
            for (AccessibilityElementPtr& child : entry.element->children()) {
                if (child)
                    stack.push_back({std::move(child), entry.depth + 1,
                                     entry.depth == 0 ? windows++ : entry.window});
            }
        }
    }
    return result;
}

std::vector<AccessibilityElementPtr>
PhoneAutomation::descendants(const AccessibilityElementPtr& root)
{
    std::vector<AccessibilityElementPtr> elements;
    for (Entry& entry : walk(root))
        elements.push_back(std::move(entry.element));
    return elements;
}

QStringList PhoneAutomation::labels(AccessibilityElement& element)
{
    return labels(element, [this] { return timeRemains(); });
}

QStringList PhoneAutomation::labels(AccessibilityElement& element,
                                    const std::function<bool()>& timeRemains)
{
    QStringList read;
    for (const LabelAttribute attribute : kLabelAttributes) {
        if (!timeRemains())
            break;
        element.setMessagingTimeout(kReadTimeout);
        if (std::optional<QString> value = element.label(attribute); value && !value->isEmpty())
            read.append(*value);
    }
    return read;
}

// A request that ran to its bound: the application is busy or stopped, and each of its other
// remembered elements would cost as much; they wait for the next look.
bool PhoneAutomation::stalled(double askedAt) const
{
    return m_clock.uptime() - askedAt >= kReadTimeout;
}

// Once the budget is spent nothing more is read: a tree listed quickly but slow to answer
// role requests must not hold the main thread either.
bool PhoneAutomation::isButton(AccessibilityElement& element,
                               const std::function<bool()>& timeRemains)
{
    if (!timeRemains())
        return false;
    element.setMessagingTimeout(kReadTimeout);
    return element.role() == axrole::button();
}

// Softphones that keep disabled call buttons in view are only trusted with enabled ones; a
// button recognised by its place must be on screen as well.
bool PhoneAutomation::usable(AccessibilityElement& element, const SoftphoneProfile& profile,
                             bool mustShow)
{
    if (!profile.enabledButtonsOnly && !mustShow)
        return true;
    if (!timeRemains())
        return false;
    element.setMessagingTimeout(kReadTimeout);
    const std::optional<ElementState> state = element.state();
    if (!state)
        return !mustShow && !profile.enabledButtonsOnly;
    return (state->enabled || !profile.enabledButtonsOnly) && (state->showing || !mustShow);
}

// The offer's container is up to three parents above its answer button: high enough to
// include the caller's number and the "incoming call" text, low enough to leave out
// unrelated notifications.
AccessibilityElementPtr PhoneAutomation::offerContainer(const AccessibilityElementPtr& button)
{
    AccessibilityElementPtr container = button;
    for (int step = 0; step < kContainerClimb && timeRemains(); ++step) {
        container->setMessagingTimeout(kReadTimeout);
        AccessibilityElementPtr parent = container->parent();
        if (!parent)
            break;
        container = std::move(parent);
    }
    return container;
}

// Among the unnamed buttons of each window that offer the rule's action, the one at the
// rule's place. Windows are tried in walk order.
AccessibilityElementPtr PhoneAutomation::unnamedButton(const std::vector<Entry>& unnamed,
                                                       const UnnamedButtonRule& rule,
                                                       const SoftphoneProfile& profile)
{
    struct Placed {
        AccessibilityElementPtr element;
        QRect frame;
    };
    std::vector<std::pair<int, std::vector<Placed>>> windows;
    for (const Entry& entry : unnamed) {
        const double asked = m_clock.uptime();
        const bool shown = usable(*entry.element, profile, true);
        if (stalled(asked))
            break;
        if (!shown || !timeRemains())
            continue;
        entry.element->setMessagingTimeout(kReadTimeout);
        if (!entry.element->actionNames().contains(rule.action, Qt::CaseInsensitive) ||
            !timeRemains())
            continue;
        entry.element->setMessagingTimeout(kReadTimeout);
        const std::optional<QRect> frame = entry.element->frame();
        if (!frame || frame->isEmpty())
            continue;
        auto window = std::find_if(windows.begin(), windows.end(),
                                   [&](const auto& w) { return w.first == entry.window; });
        if (window == windows.end())
            window = windows.insert(windows.end(), {entry.window, {}});
        window->second.push_back({entry.element, *frame});
    }
    for (const auto& [index, placed] : windows) {
        const auto lowest = std::max_element(placed.begin(), placed.end(), [](auto& a, auto& b) {
            return a.frame.top() < b.frame.top();
        });
        std::vector<const Placed*> row;
        for (const Placed& p : placed) {
            if (sameRow(p.frame, lowest->frame))
                row.push_back(&p);
        }
        switch (rule.position) {
        case UnnamedButtonRule::Position::RightOfLowestRow:
            if (row.size() >= 2)
                return (*std::max_element(
                            row.begin(), row.end(),
                            [](auto* a, auto* b) { return a->frame.left() < b->frame.left(); }))
                    ->element;
            break;
        case UnnamedButtonRule::Position::AloneInLowestRow:
            if (row.size() == 1)
                return row.front()->element;
            break;
        }
    }
    return nullptr;
}

// Named buttons are taken in walk order, each read again first: one that no longer matches
// (renamed, or gone: a vanished element reads as nothing) is never taken, and makes the tree
// stale: the callers walk it again and search once more. Buttons known only by their place
// come after.
bool PhoneAutomation::findButton(
    Sight& sight, Kind kind, const std::function<bool(const AccessibilityElementPtr&, bool)>& take)
{
    const SoftphoneProfile& profile = *sight.root.profile;
    const QStringList& table = kind == Kind::Answer ? profile.answerLabels : profile.hangUpLabels;
    const std::optional<UnnamedButtonRule>& rule =
        kind == Kind::Answer ? profile.unnamedAnswer : profile.unnamedHangUp;
    for (const Entry& entry : kind == Kind::Answer ? sight.seen.answers : sight.seen.hangUps) {
        const double asked = m_clock.uptime();
        const QStringList read = labels(*entry.element);
        if (stalled(asked))
            return false;
        if (!anyIn(read, table)) {
            sight.stale = true;
            continue;
        }
        if (usable(*entry.element, profile, false) && take(entry.element, false))
            return true;
    }
    // A nameless button is checked again where it counts: enabled and showing here, and
    // still nameless before it is pressed.
    if (rule && !sight.seen.unnamed.empty()) {
        if (AccessibilityElementPtr button = unnamedButton(sight.seen.unnamed, *rule, profile))
            return take(button, true);
    }
    return false;
}

// The caller: the profile's caller text when it has one (the topmost such text that is
// not empty), else every text around the offer. A SIP address gives a name and a number.
// The elements around a button are found once; their texts are read each time.
std::optional<IncomingCall> PhoneAutomation::offer(Sight& sight,
                                                   const AccessibilityElementPtr& button)
{
    const SoftphoneProfile& profile = *sight.root.profile;
    auto around = std::find_if(sight.surroundings.begin(), sight.surroundings.end(),
                               [&](const auto& s) { return s.first == button; });
    if (around == sight.surroundings.end()) {
        std::vector<AccessibilityElementPtr> near = descendants(offerContainer(button));
        if (!timeRemains())
            sight.trusted = false;
        around = sight.surroundings.insert(sight.surroundings.end(), {button, std::move(near)});
    }
    QStringList gathered;
    std::optional<std::pair<int, QString>> callerText;
    for (const AccessibilityElementPtr& near : around->second) {
        const QStringList read = labels(*near);
        gathered.append(read);
        if (profile.callerTextNames.isEmpty() || read.size() < 2 ||
            !profile.callerTextNames.contains(normalizedLabel(read.front())) || !timeRemains())
            continue;
        near->setMessagingTimeout(kReadTimeout);
        const std::optional<QRect> frame = near->frame();
        const int top = frame ? frame->top() : 0;
        if (!callerText || top < callerText->first)
            callerText = std::make_pair(top, read.back());
    }
    // A "Répondre" of a message notification has no call word around it.
    if (!anyIn(gathered, profile.callContext))
        return std::nullopt;
    IncomingCall call{button, QStringLiteral("Identité à confirmer"), {}, profile.id, false};
    const QStringList callerTexts = callerText ? QStringList{callerText->second} : gathered;
    if (const std::optional<SipCaller> sip = CallPolicy::sipCaller(callerTexts)) {
        call.callerName = sip->name;
        if (sip->number)
            call.caller = *sip->number;
    }
    if (call.caller == QStringLiteral("Identité à confirmer")) {
        if (const std::optional<QString> number = CallPolicy::phoneNumber(callerTexts))
            call.caller = *number;
    }
    return call;
}

std::optional<IncomingCall> PhoneAutomation::incoming()
{
    if (!m_accessibility.isTrusted())
        return std::nullopt;
    startBudget();
    std::optional<IncomingCall> call;
    for (Sight& sight : look()) {
        const auto take = [&](const AccessibilityElementPtr& button, bool unnamed) {
            call = offer(sight, button);
            if (call)
                call->unnamedButton = unnamed;
            return call.has_value();
        };
        // A remembered button that no longer reads as one: the tree changed unreported.
        const bool found = findButton(see(sight, true), Kind::Answer, take) ||
                           (sight.stale && findButton(see(sight, false, true), Kind::Answer, take));
        if (found)
            break;
    }
    return call;
}

Status PhoneAutomation::answer(const IncomingCall& call)
{
    startBudget();
    if (!m_accessibility.isTrusted() || !call.button)
        return AppError(offerGoneMessage());
    const auto profile = std::find_if(m_profiles.begin(), m_profiles.end(),
                                      [&](const auto& p) { return p.id == call.profileId; });
    const SoftphoneProfile rules =
        profile != m_profiles.end() ? *profile : softphones::standard({});
    // The offer may have gone, or its button may now mean something else. A button known by
    // its place must still be nameless, enabled and on screen.
    const QStringList read = labels(*call.button);
    const bool stillOffered =
        call.unnamedButton ? read.isEmpty() && usable(*call.button, rules, true)
                           : anyIn(read, rules.answerLabels) && usable(*call.button, rules, false);
    if (!stillOffered)
        return AppError(offerGoneMessage());
    stopWalks();
    call.button->setMessagingTimeout(kPressTimeout);
    if (!call.button->press())
        return AppError(QStringLiteral("Le bouton Décrocher n’a pas répondu. Décrochez dans %1.")
                            .arg(rules.name));
    return std::nullopt;
}

std::pair<AccessibilityElementPtr, QString> PhoneAutomation::firstHangUpButton(bool now)
{
    std::pair<AccessibilityElementPtr, QString> found{nullptr, QString()};
    for (Sight& sight : look()) {
        const QString& name = sight.root.profile->name;
        if (found.second.isEmpty())
            found.second = name;
        const auto take = [&](const AccessibilityElementPtr& button, bool) {
            found = {button, name};
            return true;
        };
        const bool pressable =
            findButton(see(sight, false, now), Kind::HangUp, take) ||
            (sight.stale && findButton(see(sight, false, true), Kind::HangUp, take));
        if (pressable)
            break;
    }
    return found;
}

bool PhoneAutomation::hasActiveCall()
{
    if (!m_accessibility.isTrusted())
        return false;
    startBudget();
    return firstHangUpButton(false).first != nullptr;
}

// The messages name the application that shows (or should show) the call.
Status PhoneAutomation::hangup()
{
    startBudget();
    auto [button, where] = firstHangUpButton(true);
    if (where.isEmpty())
        where = m_profiles.size() == 1 ? m_profiles.front().name
                                       : QStringLiteral("votre application de téléphonie");
    if (!button)
        return AppError(
            QStringLiteral("Bouton Raccrocher introuvable : terminez l’appel dans %1.").arg(where));
    stopWalks();
    button->setMessagingTimeout(kPressTimeout);
    if (!button->press())
        return AppError(QStringLiteral("Raccrochez dans %1.").arg(where));
    return std::nullopt;
}

bool PhoneAutomation::anyApplicationVisible()
{
    if (!m_accessibility.isTrusted())
        return false;
    startBudget();
    const std::optional<quint64> listChanges = m_accessibility.structureChanges(nullptr);
    if (m_listTrusted && listChanges && listChanges == m_listChanges)
        return !m_sights.empty();
    return !roots().empty();
}

} // namespace vemira
