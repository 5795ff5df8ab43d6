#include "platform/linux/phone/AtspiAccessibility.h"

#include "platform/linux/phone/AtspiChangeWatch.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusVariant>
#include <QThread>
#include <algorithm>
#include <atomic>
#include <atspi/atspi.h>
#include <chrono>
#include <cmath>
#include <mutex>
#include <thread>

namespace vemira {

namespace {

// Frees whatever libatspi handed over, even on early returns.
struct GErrorSlot {
    GError* error = nullptr;
    ~GErrorSlot()
    {
        if (error)
            g_error_free(error);
    }
    GError** operator&() { return &error; }
    bool failed() const { return error != nullptr; }
};

std::optional<QString> takeString(gchar* text, const GErrorSlot& slot)
{
    if (slot.failed() || !text) {
        g_free(text);
        return std::nullopt;
    }
    QString value = QString::fromUtf8(text);
    g_free(text);
    return value;
}

QString axRole(AtspiRole role)
{
    switch (role) {
    case ATSPI_ROLE_PUSH_BUTTON:
    case ATSPI_ROLE_PUSH_BUTTON_MENU:
        return axrole::button();
    case ATSPI_ROLE_FRAME:
    case ATSPI_ROLE_WINDOW:
    case ATSPI_ROLE_DIALOG:
        return axrole::window();
    case ATSPI_ROLE_FILLER:
    case ATSPI_ROLE_PANEL:
    case ATSPI_ROLE_SECTION:
    case ATSPI_ROLE_GROUPING:
        return axrole::group();
    case ATSPI_ROLE_LABEL:
    case ATSPI_ROLE_STATIC:
        return axrole::staticText();
    case ATSPI_ROLE_APPLICATION:
        return axrole::application();
    case ATSPI_ROLE_MENU_BAR:
        return axrole::menuBar();
    case ATSPI_ROLE_MENU:
        return axrole::menu();
    case ATSPI_ROLE_MENU_ITEM:
    case ATSPI_ROLE_CHECK_MENU_ITEM:
    case ATSPI_ROLE_RADIO_MENU_ITEM:
        return axrole::menuItem();
    default:
        return axrole::unknown();
    }
}

QString applicationBusName(AtspiAccessible* accessible)
{
    const AtspiApplication* app = accessible->parent.app;
    return app && app->bus_name ? QString::fromUtf8(app->bus_name) : QString();
}

// Bounds one press (seconds); see press().
constexpr double kPressTimeout = 0.1;
// Bounds each request of the application listing (ms), as a root's requests are bounded.
constexpr int kListTimeoutMs = 150;

// libatspi keeps state of its own for the whole process (the replies on its connection, its
// table of applications, one timeout for every request): it is entered by one thread at a
// time.
std::recursive_mutex& libraryLock()
{
    static std::recursive_mutex lock;
    return lock;
}
using LibraryLock = std::lock_guard<std::recursive_mutex>;

bool onMainThread()
{
    const QCoreApplication* app = QCoreApplication::instance();
    return !app || QThread::currentThread() == app->thread();
}

// The main thread's requests come first. It asks in bursts (a button's labels, its state), so
// a walk away from it waits while it asks and for a moment after its last request.
constexpr auto kMainThreadBurst = std::chrono::milliseconds(2);
std::atomic<int> g_mainThreadAsking{0};
std::atomic<std::chrono::steady_clock::rep> g_mainThreadAsked{0};
thread_local int t_requestDepth = 0;

void waitForMainThread()
{
    const auto busy = [] {
        const std::chrono::steady_clock::duration since =
            std::chrono::steady_clock::now().time_since_epoch() -
            std::chrono::steady_clock::duration(g_mainThreadAsked.load());
        return g_mainThreadAsking.load() > 0 || since < kMainThreadBurst;
    };
    while (busy())
        std::this_thread::sleep_for(std::chrono::microseconds(200));
}

// Holds the library for one request (or a few that belong together) under the given bound.
// libatspi's one timeout also bounds the startup grace, so a just-started application
// cannot hold us longer.
class Request {
public:
    explicit Request(int timeoutMs) : m_main(onMainThread())
    {
        if (m_main)
            ++g_mainThreadAsking;
        else if (t_requestDepth == 0)
            waitForMainThread();
        m_lock = std::unique_lock(libraryLock());
        ++t_requestDepth;
        atspi_set_timeout(timeoutMs, timeoutMs);
    }
    ~Request()
    {
        --t_requestDepth;
        if (m_main) {
            g_mainThreadAsked = std::chrono::steady_clock::now().time_since_epoch().count();
            --g_mainThreadAsking;
        }
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

private:
    bool m_main;
    std::unique_lock<std::recursive_mutex> m_lock;
};

// The bound of the calling thread's search: a walk away from the main thread has its own.
thread_local std::function<bool()> t_timeRemains;

bool timeRemains()
{
    return !t_timeRemains || t_timeRemains();
}

class AtspiElement final : public AccessibilityElement {
public:
    // The application's unique name on the accessibility bus: its events come from there.
    QString busName() const
    {
        const LibraryLock lock(libraryLock());
        return applicationBusName(m_accessible);
    }

    bool sameAs(const AccessibilityElement& other) const override
    {
        const auto* element = dynamic_cast<const AtspiElement*>(&other);
        const LibraryLock lock(libraryLock());
        return element && busName() == element->busName() &&
               qstrcmp(m_accessible->parent.path, element->m_accessible->parent.path) == 0;
    }

    explicit AtspiElement(AtspiAccessible* accessible) : m_accessible(accessible) {}
    ~AtspiElement() override
    {
        const LibraryLock lock(libraryLock());
        g_object_unref(m_accessible);
    }
    AtspiElement(const AtspiElement&) = delete;
    AtspiElement& operator=(const AtspiElement&) = delete;

    void setMessagingTimeout(double seconds) override
    {
        m_timeoutMs = std::max(1, int(std::lround(seconds * 1000.0)));
    }

    qint64 processId() override
    {
        const Request request(m_timeoutMs);
        GErrorSlot error;
        const guint pid = atspi_accessible_get_process_id(m_accessible, &error);
        return error.failed() ? 0 : qint64(pid);
    }

    std::optional<QString> role() override
    {
        const Request request(m_timeoutMs);
        GErrorSlot error;
        const AtspiRole role = atspi_accessible_get_role(m_accessible, &error);
        if (error.failed())
            return std::nullopt;
        return axRole(role);
    }

    std::optional<QString> label(LabelAttribute attribute) override
    {
        const Request request(m_timeoutMs);
        GErrorSlot error;
        switch (attribute) {
        case LabelAttribute::Title:
            return takeString(atspi_accessible_get_name(m_accessible, &error), error);
        case LabelAttribute::Description:
            return takeString(atspi_accessible_get_description(m_accessible, &error), error);
        case LabelAttribute::Help:
            return std::nullopt; // not exposed by AT-SPI 2.46
        case LabelAttribute::Value:
            return textContent();
        }
        return std::nullopt;
    }

    std::vector<AccessibilityElementPtr> children() override
    {
        std::vector<AccessibilityElementPtr> result;
        GErrorSlot error;
        gint count = 0;
        {
            const Request request(m_timeoutMs);
            count = atspi_accessible_get_child_count(m_accessible, &error);
        }
        if (error.failed() || count <= 0)
            return result;
        result.reserve(size_t(count));
        // One request per child: a window with hundreds of them must not outlast the budget,
        // nor keep another thread's request waiting for all of them.
        for (gint i = 0; i < count && timeRemains(); ++i) {
            const Request request(m_timeoutMs);
            GErrorSlot childError;
            AtspiAccessible* child =
                atspi_accessible_get_child_at_index(m_accessible, i, &childError);
            if (childError.failed() || !child) {
                if (child)
                    g_object_unref(child);
                continue;
            }
            result.push_back(AtspiAccessibility::adopt(child));
        }
        return result;
    }

    AccessibilityElementPtr parent() override
    {
        const Request request(m_timeoutMs);
        GErrorSlot error;
        AtspiAccessible* parent = atspi_accessible_get_parent(m_accessible, &error);
        if (error.failed() || !parent) {
            if (parent)
                g_object_unref(parent);
            return nullptr;
        }
        // Above an application is the desktop of all applications: not part of any offer.
        GErrorSlot roleError;
        if (!timeRemains() ||
            atspi_accessible_get_role(parent, &roleError) == ATSPI_ROLE_DESKTOP_FRAME ||
            roleError.failed()) {
            g_object_unref(parent);
            return nullptr;
        }
        return AtspiAccessibility::adopt(parent);
    }

    std::optional<ElementState> state() override
    {
        // Only states are cached (see useOnlyStateCache): this element's are read afresh.
        const Request request(m_timeoutMs);
        atspi_accessible_clear_cache(m_accessible);
        AtspiStateSet* states = atspi_accessible_get_state_set(m_accessible);
        if (!states)
            return std::nullopt;
        ElementState state;
        state.enabled = atspi_state_set_contains(states, ATSPI_STATE_SENSITIVE) ||
                        atspi_state_set_contains(states, ATSPI_STATE_ENABLED);
        state.showing = atspi_state_set_contains(states, ATSPI_STATE_SHOWING);
        // A dead or unreachable object answers with the single state "defunct".
        const bool defunct = atspi_state_set_contains(states, ATSPI_STATE_DEFUNCT);
        g_object_unref(states);
        if (defunct)
            return std::nullopt;
        return state;
    }

    std::optional<QRect> frame() override
    {
        const Request request(m_timeoutMs);
        AtspiComponent* component = atspi_accessible_get_component_iface(m_accessible);
        if (!component)
            return std::nullopt;
        GErrorSlot error;
        AtspiRect* rect = atspi_component_get_extents(component, ATSPI_COORD_TYPE_SCREEN, &error);
        g_object_unref(component);
        if (error.failed() || !rect) {
            g_free(rect);
            return std::nullopt;
        }
        const QRect frame(rect->x, rect->y, rect->width, rect->height);
        g_free(rect);
        return frame;
    }

    QStringList actionNames() override
    {
        QStringList names;
        const Request request(m_timeoutMs);
        AtspiAction* action = atspi_accessible_get_action_iface(m_accessible);
        if (!action)
            return names;
        GErrorSlot countError;
        const gint count = atspi_action_get_n_actions(action, &countError);
        for (gint i = 0; !countError.failed() && i < count && timeRemains(); ++i) {
            GErrorSlot error;
            if (std::optional<QString> name =
                    takeString(atspi_action_get_action_name(action, i, &error), error))
                names.append(*name);
        }
        g_object_unref(action);
        return names;
    }

    bool press() override
    {
        const Request request(m_timeoutMs);
        AtspiAction* action = atspi_accessible_get_action_iface(m_accessible);
        if (!action)
            return false;
        GErrorSlot countError;
        const gint actions = atspi_action_get_n_actions(action, &countError);
        bool pressed = false;
        if (!countError.failed() && actions > 0) {
            // A softphone handles the press before it replies: answering opens its audio
            // devices, which held Twinkle's reply up to half a second, the main thread with
            // it. The press waits only long enough for a quick refusal (a button gone), and a
            // press delivered but not yet confirmed counts as done: the call's state, read on
            // the next tick, tells what came of it.
            const Request pressing(int(std::lround(kPressTimeout * 1000.0)));
            GErrorSlot error;
            pressed = atspi_action_do_action(action, 0, &error) && !error.failed();
            if (error.failed() &&
                QString::fromUtf8(error.error->message)
                    .contains(QStringLiteral("did not receive a reply"), Qt::CaseInsensitive))
                pressed = true;
        }
        g_object_unref(action);
        return pressed;
    }

    bool cancel() override { return false; }

    AccessibilityElementPtr menuBar() override
    {
        // A menu bar sits in one of the application's windows.
        for (const AccessibilityElementPtr& window : children()) {
            for (const AccessibilityElementPtr& child : window->children()) {
                if (child->role() == axrole::menuBar())
                    return child;
            }
        }
        return nullptr;
    }

    std::optional<QString> identifier() override
    {
        const Request request(m_timeoutMs);
        GErrorSlot error;
        return takeString(atspi_accessible_get_accessible_id(m_accessible, &error), error);
    }

    std::optional<QString> markCharacter() override { return std::nullopt; }

    std::optional<bool> selected() override
    {
        const Request request(m_timeoutMs);
        atspi_accessible_clear_cache(m_accessible);
        AtspiStateSet* states = atspi_accessible_get_state_set(m_accessible);
        if (!states)
            return std::nullopt;
        const bool on = atspi_state_set_contains(states, ATSPI_STATE_CHECKED) ||
                        atspi_state_set_contains(states, ATSPI_STATE_SELECTED);
        g_object_unref(states);
        return on;
    }

private:
    std::optional<QString> textContent()
    {
        AtspiText* text = atspi_accessible_get_text_iface(m_accessible);
        if (!text)
            return std::nullopt;
        // A label is short; a document's text is no label, so only its start is read.
        constexpr gint kLabelLength = 512;
        GErrorSlot error;
        std::optional<QString> content =
            takeString(atspi_text_get_text(text, 0, kLabelLength, &error), error);
        g_object_unref(text);
        return content;
    }

    AtspiAccessible* m_accessible;
    std::atomic<int> m_timeoutMs{kListTimeoutMs};
};

// The accessibility bus is announced on the session bus by at-spi-bus-launcher; without
// it libatspi has nowhere to ask and must not be started.
// Switches the desktop's accessibility on (org.a11y.Status.IsEnabled), as a screen reader
// does: toolkits then expose the applications started from now on (a Qt 5 softphone already
// running stays invisible until it is restarted). Where the bus launcher starts on demand,
// this starts it.
void switchAccessibilityOn()
{
    QDBusConnection session = QDBusConnection::sessionBus();
    if (!session.isConnected())
        return;
    QDBusMessage set = QDBusMessage::createMethodCall(
        QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Set"));
    set << QStringLiteral("org.a11y.Status") << QStringLiteral("IsEnabled")
        << QVariant::fromValue(QDBusVariant(true));
    session.call(set, QDBus::Block, 2000);
}

bool accessibilityBusAvailable()
{
    QDBusConnection session = QDBusConnection::sessionBus();
    if (!session.isConnected() || !session.interface())
        return false;
    return session.interface()->isServiceRegistered(QStringLiteral("org.a11y.Bus")).value();
}

// When libatspi first meets an application it fetches the application's whole tree at once
// and, handling that reply, checks each element's states; with states left uncached that
// check is a request made from inside the reply's handling, which waits forever for the
// connection it holds (seen with GNOME Calls). So states stay cached, and are dropped
// before each state read of ours; everything else is always asked afresh.
void useOnlyStateCache(AtspiAccessible* root)
{
    atspi_accessible_set_cache_mask(root, ATSPI_CACHE_STATES);
    atspi_accessible_clear_cache(root);
}

// libatspi subscribes to every application's object events to keep its caches. It handles
// them while it waits for the reply to one of our requests, and for some it makes a request
// of its own from inside that wait, which never returns: a busy GTK softphone (GNOME Calls)
// froze the search for good. We read everything afresh and need none of those events.
void ignoreObjectEvents()
{
    DBusConnection* bus = atspi_get_a11y_bus();
    if (!bus)
        return;
    for (const char* rule :
         {"type='signal',interface='org.a11y.atspi.Event.Object',member='ChildrenChanged'",
          "type='signal',interface='org.a11y.atspi.Event.Object',member='PropertyChange'",
          "type='signal',interface='org.a11y.atspi.Event.Object',member='StateChanged'",
          "type='signal',interface='org.a11y.atspi.Cache',member='AddAccessible'",
          "type='signal',interface='org.a11y.atspi.Cache',member='RemoveAccessible'"})
        dbus_bus_remove_match(bus, rule, nullptr);
    dbus_connection_flush(bus);
}

// libatspi's connection is handed a context of its own, which only handleLibraryMessages()
// iterates under the lock: the event loop would otherwise handle its messages on the main
// thread while another thread is inside the library.
GMainContext* libraryContext()
{
    static GMainContext* context = g_main_context_new();
    return context;
}

QString accessibilityBusAddress()
{
    QString fromEnv = qEnvironmentVariable("AT_SPI_BUS_ADDRESS");
    if (!fromEnv.isEmpty())
        return fromEnv;
    QDBusMessage ask = QDBusMessage::createMethodCall(
        QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
        QStringLiteral("org.a11y.Bus"), QStringLiteral("GetAddress"));
    const QDBusReply<QString> reply = QDBusConnection::sessionBus().call(ask, QDBus::Block, 2000);
    return reply.isValid() ? reply.value() : QString();
}

} // namespace

ChangeWatch::ChangeWatch(const QString& address)
    : m_name(QStringLiteral("vemira-atspi-changes-%1").arg(quintptr(this)))
{
    QDBusConnection bus = QDBusConnection::connectToBus(address, m_name);
    if (!bus.isConnected() || !bus.interface())
        return;
    bool connected = true;
    for (const auto& [interface, member] :
         {std::pair{"org.a11y.atspi.Event.Object", "ChildrenChanged"},
          std::pair{"org.a11y.atspi.Event.Object", "StateChanged"},
          std::pair{"org.a11y.atspi.Event.Window", "Create"},
          std::pair{"org.a11y.atspi.Event.Window", "Destroy"}})
        connected = bus.connect({}, {}, QString::fromLatin1(interface), QString::fromLatin1(member),
                                this, SLOT(changed(QDBusMessage))) &&
                    connected;
    // Applications send only the events some listener registered for.
    bool registered = true;
    for (const char* event :
         {"object:children-changed", "object:state-changed", "window:create", "window:destroy"}) {
        QDBusMessage add = QDBusMessage::createMethodCall(
            QStringLiteral("org.a11y.atspi.Registry"), QStringLiteral("/org/a11y/atspi/registry"),
            QStringLiteral("org.a11y.atspi.Registry"), QStringLiteral("RegisterEvent"));
        add << QString::fromLatin1(event);
        registered =
            bus.call(add, QDBus::Block, 2000).type() != QDBusMessage::ErrorMessage && registered;
    }
    m_registry = bus.interface()->serviceOwner(QStringLiteral("org.a11y.atspi.Registry")).value();
    m_watching = connected && registered && !m_registry.isEmpty();
}

ChangeWatch::~ChangeWatch()
{
    QDBusConnection::disconnectFromBus(m_name);
}

void ChangeWatch::changed(const QDBusMessage& message)
{
    // Of the states, only those that make a button usable or put it on screen.
    if (message.member() == QLatin1String("StateChanged")) {
        static const QStringList kept{QStringLiteral("showing"), QStringLiteral("visible"),
                                      QStringLiteral("sensitive"), QStringLiteral("enabled")};
        if (!kept.contains(message.arguments().value(0).toString()))
            return;
    }
    ++m_counts[message.service()];
}

AtspiAccessibility::AtspiAccessibility() = default;

AtspiAccessibility::~AtspiAccessibility() = default;

void AtspiAccessibility::handleLibraryMessages()
{
    if (!m_initialised)
        return;
    const LibraryLock lock(libraryLock());
    while (g_main_context_iteration(libraryContext(), FALSE)) {
    }
}

std::optional<quint64> AtspiAccessibility::structureChanges(AccessibilityElement* root)
{
    if (!root)
        handleLibraryMessages(); // once a look
    if (!m_changes || !m_changes->watching())
        return std::nullopt;
    if (!root)
        return m_changes->applicationListChanges();
    const auto* element = dynamic_cast<AtspiElement*>(root);
    if (!element)
        return std::nullopt;
    const QString name = element->busName();
    if (name.isEmpty())
        return std::nullopt;
    return m_changes->changesFrom(name);
}

AccessibilityElementPtr AtspiAccessibility::adopt(AtspiAccessible* accessible)
{
    return std::make_shared<AtspiElement>(accessible);
}

void AtspiAccessibility::setDeadline(std::function<bool()> timeRemains)
{
    t_timeRemains = std::move(timeRemains);
}

bool AtspiAccessibility::requestTrust()
{
    switchAccessibilityOn();
    return isTrusted();
}

bool AtspiAccessibility::isTrusted()
{
    if (!m_initialised) {
        if (!m_switchedOn) {
            m_switchedOn = true;
            switchAccessibilityOn();
        }
        if (!accessibilityBusAvailable())
            return false;
        const LibraryLock lock(libraryLock());
        const int status = atspi_init();
        m_initialised = status == 0 || status == 1; // 1: already initialised
        if (m_initialised && !m_changes) {
            if (const QString address = accessibilityBusAddress(); !address.isEmpty())
                m_changes = std::make_unique<ChangeWatch>(address);
        }
        if (m_initialised)
            atspi_set_main_context(libraryContext());
        if (status == 0) {
            ignoreObjectEvents();
            // Turns libatspi's caching on before any application's tree arrives.
            if (AtspiAccessible* desktop = atspi_get_desktop(0)) {
                useOnlyStateCache(desktop);
                g_object_unref(desktop);
            }
        }
    }
    return m_initialised;
}

std::vector<AccessibilityElementPtr> AtspiAccessibility::applicationRoots(const QStringList& names)
{
    std::vector<AccessibilityElementPtr> roots;
    for (auto& [name, root] : namedApplicationRoots(names))
        roots.push_back(std::move(root));
    return roots;
}

// One listing of the desktop for all names: two requests per running application, each
// bounded by the last messaging timeout, and none once the search's budget is spent.
std::vector<std::pair<QString, AccessibilityElementPtr>>
AtspiAccessibility::namedApplicationRoots(const QStringList& names)
{
    std::vector<std::pair<QString, AccessibilityElementPtr>> roots;
    if (!isTrusted() || !timeRemains())
        return roots;
    // An application that stopped answering must not hold the listing longer than it
    // would hold a search of its own tree.
    const Request request(kListTimeoutMs);
    AtspiAccessible* desktop = atspi_get_desktop(0);
    if (!desktop)
        return roots;
    // Without the events that kept it current, the list of applications is asked each time.
    useOnlyStateCache(desktop);
    GErrorSlot countError;
    const gint count = atspi_accessible_get_child_count(desktop, &countError);
    for (gint i = 0; !countError.failed() && i < count && timeRemains(); ++i) {
        GErrorSlot error;
        AtspiAccessible* app = atspi_accessible_get_child_at_index(desktop, i, &error);
        if (error.failed() || !app || !timeRemains()) {
            if (app)
                g_object_unref(app);
            continue;
        }
        // A searched application's name is asked once: a softphone busy with a ring may not
        // answer in time, and must not drop out of the list for it.
        const QString busName = applicationBusName(app);
        std::optional<QString> name;
        if (const auto known = m_applicationNames.constFind(busName);
            known != m_applicationNames.cend()) {
            name = *known;
        } else {
            GErrorSlot nameError;
            name = takeString(atspi_accessible_get_name(app, &nameError), nameError);
        }
        const auto listed = std::find_if(names.begin(), names.end(), [&](const QString& n) {
            return name && n.compare(*name, Qt::CaseInsensitive) == 0;
        });
        if (listed != names.end()) {
            if (!busName.isEmpty())
                m_applicationNames.insert(busName, *name);
            // Read afresh every time: a cached tree would keep showing a call that ended.
            useOnlyStateCache(app);
            roots.emplace_back(*listed, adopt(app));
        } else {
            g_object_unref(app);
        }
    }
    g_object_unref(desktop);
    return roots;
}

QStringList linuxPhoneApplications(const QByteArray& extraNames)
{
    // The known softphones (the end-to-end tests' own included), then the user's.
    QStringList names = softphones::applicationsOf(softphones::known());
    for (const QString& extra : QString::fromUtf8(extraNames).split(QLatin1Char(','))) {
        const QString name = extra.trimmed();
        if (!name.isEmpty() && !names.contains(name, Qt::CaseInsensitive))
            names.append(name);
    }
    return names;
}

std::unique_ptr<Accessibility> createPlatformAccessibility()
{
    return std::make_unique<AtspiAccessibility>();
}

QStringList searchedPhoneApplications()
{
    return linuxPhoneApplications(qgetenv("VEMIRA_PHONE_APPS"));
}

// There is no phone application with an audio menu on Linux.
QString phoneApplicationId()
{
    return QString();
}

} // namespace vemira
