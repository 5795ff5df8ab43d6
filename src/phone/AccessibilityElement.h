#pragma once

#include <QRect>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace vemira {

// Roles are named as the macOS accessibility API names them; other backends map theirs
// onto these (an AT-SPI "push button" is a button, a frame or filler a group).
namespace axrole {
inline QString button()
{
    return QStringLiteral("AXButton");
}
inline QString group()
{
    return QStringLiteral("AXGroup");
}
inline QString window()
{
    return QStringLiteral("AXWindow");
}
inline QString application()
{
    return QStringLiteral("AXApplication");
}
inline QString staticText()
{
    return QStringLiteral("AXStaticText");
}
inline QString menuBar()
{
    return QStringLiteral("AXMenuBar");
}
inline QString menuBarItem()
{
    return QStringLiteral("AXMenuBarItem");
}
inline QString menu()
{
    return QStringLiteral("AXMenu");
}
inline QString menuItem()
{
    return QStringLiteral("AXMenuItem");
}
inline QString unknown()
{
    return QStringLiteral("AXUnknown");
}
} // namespace axrole

// The four attributes whose strings count as an element's labels, in reading order.
enum class LabelAttribute { Title, Description, Help, Value };
inline constexpr LabelAttribute kLabelAttributes[] = {LabelAttribute::Title,
                                                      LabelAttribute::Description,
                                                      LabelAttribute::Help, LabelAttribute::Value};

// Whether an element can be used now and is on screen. Softphones keep their call buttons
// in place between calls, disabled, and build views they do not show yet.
struct ElementState {
    bool enabled = true;
    bool showing = true;
};

class AccessibilityElement;
using AccessibilityElementPtr = std::shared_ptr<AccessibilityElement>;

// One element of another application's interface. Every read is a request to that
// application and may fail or time out: a failed read gives an empty answer, never throws.
// Main thread only, unless the platform reads from any thread (Accessibility).
class AccessibilityElement {
public:
    virtual ~AccessibilityElement() = default;

    // Whether `other` stands for the same element of the same application; asks nothing.
    virtual bool sameAs(const AccessibilityElement& other) const { return this == &other; }
    // Bounds each following request on this element (seconds).
    virtual void setMessagingTimeout(double seconds) = 0;
    // The process that shows the element; 0 when the backend cannot tell.
    virtual qint64 processId() { return 0; }

    virtual std::optional<QString> role() = 0;
    // The attribute when it exists and is a string (possibly empty).
    virtual std::optional<QString> label(LabelAttribute attribute) = 0;
    virtual std::vector<AccessibilityElementPtr> children() = 0;
    // Null when there is no parent or the value read is not an element.
    virtual AccessibilityElementPtr parent() = 0;
    // The default action ("AXPress", or an AT-SPI element's first action); true on success.
    [[nodiscard]] virtual bool press() = 0;
    // Closes an opened menu ("AXCancel"); true on success.
    virtual bool cancel() = 0;

    // For softphones whose buttons carry no name: absent (or empty) when the backend cannot
    // tell. Each is one more request to the application.
    virtual std::optional<ElementState> state() { return std::nullopt; }
    virtual std::optional<QRect> frame() { return std::nullopt; } // screen coordinates
    virtual QStringList actionNames() { return {}; }

    // Menu reading, for the phone application's audio menu.
    virtual AccessibilityElementPtr menuBar() = 0;
    virtual std::optional<QString> identifier() = 0;
    virtual std::optional<QString> markCharacter() = 0;
    virtual std::optional<bool> selected() = 0;
};

// What the platform gives: the permission, the running searched applications and the
// opening of an application. Main thread only.
class Accessibility {
public:
    virtual ~Accessibility() = default;

    // False when this process may not read other applications' interfaces.
    virtual bool isTrusted() = 0;
    // Asks the system to put this application up for the user's approval (macOS shows its
    // prompt and adds the application to the Accessibility list); answers isTrusted(). Where
    // the system has no such prompt, only the answer.
    virtual bool requestTrust() { return isTrusted(); }
    // Root elements of the running applications whose identifier (bundle identifier on
    // macOS, application name on Linux) is in `applicationIds`, in the platform's order.
    virtual std::vector<AccessibilityElementPtr>
    applicationRoots(const QStringList& applicationIds) = 0;
    // The same roots, each with the identifier it was found under (as listed in
    // `applicationIds`). The default lists once per identifier.
    virtual std::vector<std::pair<QString, AccessibilityElementPtr>>
    namedApplicationRoots(const QStringList& applicationIds)
    {
        std::vector<std::pair<QString, AccessibilityElementPtr>> named;
        for (const QString& id : applicationIds) {
            for (AccessibilityElementPtr& root : applicationRoots({id}))
                named.emplace_back(id, std::move(root));
        }
        return named;
    }
    // Requests the backend makes on its own (one per listed application, one per child of
    // a child list) stop once `timeRemains` answers false, so a search's budget also
    // bounds them. Empty: no bound. The default backend makes no such requests. Where
    // elements are read from any thread, the bound is the calling thread's.
    // NOLINTNEXTLINE(performance-unnecessary-value-param): a sink, moved from by overriders.
    virtual void setDeadline(std::function<bool()> /*timeRemains*/) {}
    // True when elements may be read from a thread other than the main one (a request then
    // waits for one under way on another thread): whole trees are then walked away from the
    // main thread. This object itself stays the main thread's.
    virtual bool readsFromAnyThread() const { return false; }
    // How many changes of structure the platform reported so far in the application of
    // `root` (elements added or removed, shown or hidden, enabled or disabled, windows opened
    // or closed), or with a null `root` in the list of applications: an unchanged count means
    // nothing moved there. Absent when the platform reports no such changes: then anything
    // may have moved since the last look.
    virtual std::optional<quint64> structureChanges(AccessibilityElement* /*root*/)
    {
        return std::nullopt;
    }
    // True when the platform knows where to find the application (it may not be running).
    virtual bool canOpenApplication(const QString& applicationId) = 0;
    // Launches or brings forward the application with activation; `done` runs on the main
    // thread once the launch completed (or failed).
    virtual void openApplication(const QString& applicationId, std::function<void()> done) = 0;
};

// Defined by the platform backend (src/platform/<os>/phone).
std::unique_ptr<Accessibility> createPlatformAccessibility();
// The identifiers of the applications where calls are looked for on this platform.
QStringList searchedPhoneApplications();
// The application whose audio menu NativeAudioSetup drives.
QString phoneApplicationId();

} // namespace vemira
