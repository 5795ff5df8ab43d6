#include "phone/PhoneAutomation.h"

#include "phone/CallPolicy.h"
#include "phone/LabelText.h"

#include <utility>

namespace vemira {

namespace {
QString offerGoneMessage()
{
    return QStringLiteral("L’appel n’est plus disponible.");
}
} // namespace

PhoneAutomation::PhoneAutomation(Accessibility& accessibility, Clock& clock,
                                 QStringList searchedApplications)
    : m_accessibility(accessibility), m_clock(clock),
      m_searchedApplications(std::move(searchedApplications))
{}

bool PhoneAutomation::timeRemains() const
{
    return m_clock.uptime() < m_deadline;
}

void PhoneAutomation::startBudget()
{
    m_deadline = m_clock.uptime() + kBudgetSeconds;
}

std::vector<AccessibilityElementPtr> PhoneAutomation::roots()
{
    std::vector<AccessibilityElementPtr> found =
        m_accessibility.applicationRoots(m_searchedApplications);
    for (const AccessibilityElementPtr& root : found)
        root->setMessagingTimeout(kRootTimeout);
    return found;
}

// Depth-first with an explicit stack: the last child pushed is visited first, so siblings
// come last to first. Elements at the depth limit are listed but not opened.
std::vector<AccessibilityElementPtr>
PhoneAutomation::descendants(const AccessibilityElementPtr& root)
{
    std::vector<AccessibilityElementPtr> result;
    std::vector<Entry> stack{{root, 0}};
    while (!stack.empty()) {
        Entry entry = std::move(stack.back());
        stack.pop_back();
        if (int(result.size()) >= kMaxElementsPerRoot || !timeRemains())
            break;
        result.push_back(entry.element);
        if (entry.depth < kMaxDepth && timeRemains()) {
            entry.element->setMessagingTimeout(kReadTimeout);
            for (AccessibilityElementPtr& child : entry.element->children()) {
                if (child)
                    stack.push_back({std::move(child), entry.depth + 1});
            }
        }
    }
    return result;
}

QStringList PhoneAutomation::labels(AccessibilityElement& element)
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

// Once the budget is spent nothing more is read: a tree listed quickly but slow to answer
// role requests must not hold the main thread either.
bool PhoneAutomation::isButton(AccessibilityElement& element)
{
    if (!timeRemains())
        return false;
    element.setMessagingTimeout(kReadTimeout);
    return element.role() == axrole::button();
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

std::optional<IncomingCall> PhoneAutomation::incoming()
{
    if (!m_accessibility.isTrusted())
        return std::nullopt;
    startBudget();
    for (const AccessibilityElementPtr& root : roots()) {
        for (const AccessibilityElementPtr& element : descendants(root)) {
            if (!isButton(*element) || !anyLabelIn(labels(*element), phonelabels::answer()))
                continue;
            QStringList gathered;
            for (const AccessibilityElementPtr& near : descendants(offerContainer(element)))
                gathered.append(labels(*near));
            // A "Répondre" of a message notification has no call word around it.
            if (!anyLabelIn(gathered, phonelabels::callContext()))
                continue;
            const std::optional<QString> number = CallPolicy::phoneNumber(gathered);
            return IncomingCall{element, number ? *number : QStringLiteral("Identité à confirmer")};
        }
    }
    return std::nullopt;
}

Status PhoneAutomation::answer(const IncomingCall& call)
{
    startBudget();
    if (!m_accessibility.isTrusted() || !call.button)
        return AppError(offerGoneMessage());
    // The offer may have gone, or its button may now mean something else.
    if (!anyLabelIn(labels(*call.button), phonelabels::answer()))
        return AppError(offerGoneMessage());
    if (!call.button->press())
        return AppError(
            QStringLiteral("Le bouton Décrocher n’a pas répondu. Décrochez dans Téléphone."));
    return std::nullopt;
}

AccessibilityElementPtr PhoneAutomation::firstHangUpButton()
{
    for (const AccessibilityElementPtr& root : roots()) {
        for (const AccessibilityElementPtr& element : descendants(root)) {
            if (isButton(*element) && anyLabelIn(labels(*element), phonelabels::hangUp()))
                return element;
        }
    }
    return nullptr;
}

bool PhoneAutomation::hasActiveCall()
{
    if (!m_accessibility.isTrusted())
        return false;
    startBudget();
    return firstHangUpButton() != nullptr;
}

Status PhoneAutomation::hangup()
{
    startBudget();
    const AccessibilityElementPtr button = firstHangUpButton();
    if (!button)
        return AppError(
            QStringLiteral("Bouton Raccrocher introuvable : terminez l’appel dans Téléphone."));
    if (!button->press())
        return AppError(QStringLiteral("Raccrochez dans Téléphone."));
    return std::nullopt;
}

} // namespace vemira
