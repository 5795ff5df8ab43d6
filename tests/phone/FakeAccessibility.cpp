#include "FakeAccessibility.h"

#include "phone/LabelText.h"

#include <mutex>

namespace vemira::testing {

namespace {
// Trees may be walked away from the main thread while it reads some of their elements.
std::mutex g_logLock;
} // namespace

FakeElementPtr FakeElement::make(const QString& role, const QString& title,
                                 std::shared_ptr<FakeReadLog> log)
{
    auto element = std::make_shared<FakeElement>();
    element->roleName = role;
    if (!title.isEmpty())
        element->title = title;
    element->log = log ? std::move(log) : std::make_shared<FakeReadLog>();
    return element;
}

FakeElementPtr FakeElement::add(FakeElementPtr child)
{
    child->parentElement = weak_from_this();
    child->log = log;
    kids.push_back(child);
    return child;
}

FakeElementPtr FakeElement::add(const QString& role, const QString& title)
{
    return add(make(role, title, log));
}

void FakeElement::read()
{
    const std::lock_guard lock(g_logLock);
    ++log->reads;
    log->requestTimeouts.push_back(timeout);
    if (log->onRead)
        log->onRead();
}

void FakeElement::setMessagingTimeout(double seconds)
{
    const std::lock_guard lock(g_logLock);
    timeout = seconds;
    timeouts.push_back(seconds);
    log->lastTimeout = seconds;
}

std::optional<QString> FakeElement::role()
{
    read();
    return roleName;
}

std::optional<QString> FakeElement::label(LabelAttribute attribute)
{
    read();
    switch (attribute) {
    case LabelAttribute::Title:
        return title;
    case LabelAttribute::Description:
        return description;
    case LabelAttribute::Help:
        return help;
    case LabelAttribute::Value:
        return value;
    }
    return std::nullopt;
}

std::vector<AccessibilityElementPtr> FakeElement::children()
{
    read();
    const std::lock_guard lock(g_logLock);
    ++log->childListReads;
    return {kids.begin(), kids.end()};
}

AccessibilityElementPtr FakeElement::parent()
{
    read();
    if (parentIsNotElement)
        return nullptr;
    return parentElement.lock();
}

bool FakeElement::press()
{
    read();
    ++pressCount;
    if (!pressSucceeds)
        return false;
    if (onPress)
        onPress(*this);
    return true;
}

bool FakeElement::cancel()
{
    read();
    ++cancelCount;
    return true;
}

AccessibilityElementPtr FakeElement::menuBar()
{
    read();
    return menuBarElement;
}

std::optional<QString> FakeElement::identifier()
{
    read();
    return identifierValue;
}

std::optional<QString> FakeElement::markCharacter()
{
    read();
    return markChar;
}

std::optional<bool> FakeElement::selected()
{
    read();
    return selectedValue;
}

std::optional<ElementState> FakeElement::state()
{
    read();
    return stateValue;
}

std::optional<QRect> FakeElement::frame()
{
    read();
    return frameValue;
}

QStringList FakeElement::actionNames()
{
    read();
    return actions;
}

std::vector<AccessibilityElementPtr> FakeAccessibility::applicationRoots(const QStringList& ids)
{
    std::vector<AccessibilityElementPtr> roots;
    for (const auto& [id, root] : running) {
        if (ids.contains(id))
            roots.push_back(root);
    }
    return roots;
}

void FakeAccessibility::openApplication(const QString& id, std::function<void()> done)
{
    opened.append(id);
    if (deferLaunch)
        deferLaunch(std::move(done));
    else
        done();
}

FakePhoneMenu FakePhoneMenu::make(StateKind state)
{
    FakePhoneMenu m;
    m.state = state;
    m.application = FakeElement::make(axrole::application(), QStringLiteral("Téléphone"));
    m.menuBar = m.application->add(axrole::menuBar());
    m.application->menuBarElement = m.menuBar;
    m.menuBar->add(axrole::menuBarItem(), QStringLiteral("Téléphone"));
    m.menuBar->add(axrole::menuBarItem(), QStringLiteral("Édition"));
    m.videoItem = m.menuBar->add(axrole::menuBarItem(), QStringLiteral("Vidéo"));
    m.videoItem->identifierValue = QStringLiteral("com.apple.facetime.menu.video");
    m.menuBar->add(axrole::menuBarItem(), QStringLiteral("Fenêtre"));
    m.menu = FakeElement::make(axrole::menu());
    // The opened menu appears under its bar item only once the item is pressed.
    m.videoItem->onPress = [menu = m.menu](FakeElement& item) {
        item.kids.clear();
        item.add(menu);
    };
    m.menu->roleName = axrole::menu();
    return m;
}

FakeElementPtr FakePhoneMenu::item(const QString& title)
{
    FakeElementPtr added = menu->add(axrole::menuItem(), title);
    std::weak_ptr<FakeElement> weakMenu = menu;
    const StateKind kind = state;
    added->onPress = [weakMenu, kind](FakeElement& pressed) {
        const FakeElementPtr owner = weakMenu.lock();
        if (!owner || kind == StateKind::None)
            return;
        // Uncheck the other items of the pressed item's section.
        bool inSection = false;
        std::vector<FakeElementPtr> sectionItems;
        for (const FakeElementPtr& other : owner->kids) {
            const QString folded = normalizedLabel(other->title.value_or(QString()));
            const bool header =
                folded == QStringLiteral("micro") || folded == QStringLiteral("microphone") ||
                folded == QStringLiteral("sortie") || folded == QStringLiteral("output") ||
                folded == QStringLiteral("speakers") || folded == QStringLiteral("haut-parleurs");
            if (header) {
                if (inSection)
                    break;
                sectionItems.clear();
                continue;
            }
            sectionItems.push_back(other);
            if (other.get() == &pressed)
                inSection = true;
        }
        for (const FakeElementPtr& other : sectionItems) {
            const bool on = other.get() == &pressed;
            if (kind == StateKind::MarkCharacter)
                other->markChar = on ? QStringLiteral("✓") : QString();
            else
                other->selectedValue = on;
        }
    };
    return added;
}

void FakePhoneMenu::check(const FakeElementPtr& item)
{
    if (state == StateKind::MarkCharacter)
        item->markChar = QStringLiteral("✓");
    else if (state == StateKind::SelectedFlag)
        item->selectedValue = true;
}

bool FakePhoneMenu::isChecked(const FakeElementPtr& item) const
{
    return (item->markChar && !item->markChar->isEmpty()) || item->selectedValue.value_or(false);
}

QStringList FakePhoneMenu::checkedTitles() const
{
    QStringList titles;
    for (const FakeElementPtr& item : menu->kids) {
        if (isChecked(item))
            titles.append(item->title.value_or(QString()));
    }
    return titles;
}

} // namespace vemira::testing
