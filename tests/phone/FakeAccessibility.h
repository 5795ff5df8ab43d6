#pragma once

#include "phone/AccessibilityElement.h"

#include <QString>
#include <QStringList>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace vemira::testing {

// Counts the requests made to one fake tree and lets a test make them slow: `onRead` runs
// before every request (advance a ManualClock, or sleep for a real delay).
struct FakeReadLog {
    int reads = 0;
    int childListReads = 0;
    double lastTimeout = -1;
    // The messaging timeout in force on the element of each request, in order (-1: none set).
    std::vector<double> requestTimeouts;
    std::function<void()> onRead;
};

// An element of another application's interface, fully under the test's control.
class FakeElement : public AccessibilityElement, public std::enable_shared_from_this<FakeElement> {
public:
    static std::shared_ptr<FakeElement> make(const QString& role, const QString& title = {},
                                             std::shared_ptr<FakeReadLog> log = nullptr);

    // Appends `child` (adopting it as parent) and returns it, for chained tree building.
    std::shared_ptr<FakeElement> add(std::shared_ptr<FakeElement> child);
    std::shared_ptr<FakeElement> add(const QString& role, const QString& title = {});
    void removeChildren() { kids.clear(); }

    // AccessibilityElement
    void setMessagingTimeout(double seconds) override;
    std::optional<QString> role() override;
    std::optional<QString> label(LabelAttribute attribute) override;
    std::vector<AccessibilityElementPtr> children() override;
    AccessibilityElementPtr parent() override;
    bool press() override;
    bool cancel() override;
    AccessibilityElementPtr menuBar() override;
    std::optional<QString> identifier() override;
    std::optional<QString> markCharacter() override;
    std::optional<bool> selected() override;
    std::optional<ElementState> state() override;
    std::optional<QRect> frame() override;
    QStringList actionNames() override;

    QString roleName;
    std::optional<QString> title, description, help, value;
    std::vector<std::shared_ptr<FakeElement>> kids;
    std::weak_ptr<FakeElement> parentElement;
    bool parentIsNotElement = false; // the parent attribute holds something else
    bool pressSucceeds = true;
    std::function<void(FakeElement&)> onPress;
    int pressCount = 0;
    int cancelCount = 0;
    double timeout = -1;          // the last one set
    std::vector<double> timeouts; // every one set, in order
    std::shared_ptr<FakeElement> menuBarElement;
    std::optional<QString> identifierValue, markChar;
    std::optional<bool> selectedValue;
    std::optional<ElementState> stateValue;
    std::optional<QRect> frameValue;
    QStringList actions;
    std::shared_ptr<FakeReadLog> log;

private:
    void read();
};
using FakeElementPtr = std::shared_ptr<FakeElement>;

// The platform side: permission, running applications (in order), opening an application.
class FakeAccessibility : public Accessibility {
public:
    bool isTrusted() override { return trusted; }
    bool requestTrust() override
    {
        ++trustRequests;
        return trusted;
    }
    std::vector<AccessibilityElementPtr> applicationRoots(const QStringList& ids) override;
    std::optional<quint64> structureChanges(AccessibilityElement*) override { return changes; }
    bool readsFromAnyThread() const override { return anyThread; }
    bool canOpenApplication(const QString& id) override { return knownApplications.contains(id); }
    void openApplication(const QString& id, std::function<void()> done) override;

    bool trusted = true;
    bool anyThread = false; // the trees' counts and logs are then kept under a lock
    int trustRequests = 0;
    std::optional<quint64> changes; // one count for every application and their list

    std::vector<std::pair<QString, FakeElementPtr>> running;
    QStringList knownApplications;
    QStringList opened;
    // Null: the launch completes at once. Otherwise the test decides when.
    std::function<void(std::function<void()>)> deferLaunch;
};

// The phone application's "Vidéo" menu: a menu bar item whose first child is the menu.
// Pressing a device item checks it and unchecks the others of its section, through the
// mark character or the selected flag, or through neither when `exposesState` is false.
struct FakePhoneMenu {
    enum class StateKind { MarkCharacter, SelectedFlag, None };
    static FakePhoneMenu make(StateKind state = StateKind::MarkCharacter);

    // Adds an item to the menu; a header is just an item whose title names a section.
    FakeElementPtr item(const QString& title);
    void check(const FakeElementPtr& item);
    bool isChecked(const FakeElementPtr& item) const;
    // Title of the checked items, in menu order.
    QStringList checkedTitles() const;

    FakeElementPtr application; // root, with the menu bar
    FakeElementPtr menuBar;
    FakeElementPtr videoItem;
    FakeElementPtr menu;
    StateKind state = StateKind::MarkCharacter;
};

} // namespace vemira::testing
