#include "platform/linux/phone/AtspiAccessibility.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusReply>
#include <atspi/atspi.h>
#include <cmath>

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

class AtspiElement final : public AccessibilityElement {
public:
    explicit AtspiElement(AtspiAccessible* accessible) : m_accessible(accessible) {}
    ~AtspiElement() override { g_object_unref(m_accessible); }
    AtspiElement(const AtspiElement&) = delete;
    AtspiElement& operator=(const AtspiElement&) = delete;

    void setMessagingTimeout(double seconds) override
    {
        // libatspi has one timeout for all requests; the startup grace gets the same bound
        // so a just-started application cannot hold us longer.
        const int ms = std::max(1, int(std::lround(seconds * 1000.0)));
        atspi_set_timeout(ms, ms);
    }

    std::optional<QString> role() override
    {
        GErrorSlot error;
        const AtspiRole role = atspi_accessible_get_role(m_accessible, &error);
        if (error.failed())
            return std::nullopt;
        return axRole(role);
    }

    std::optional<QString> label(LabelAttribute attribute) override
    {
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
        const gint count = atspi_accessible_get_child_count(m_accessible, &error);
        if (error.failed() || count <= 0)
            return result;
        result.reserve(size_t(count));
        for (gint i = 0; i < count; ++i) {
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
        GErrorSlot error;
        AtspiAccessible* parent = atspi_accessible_get_parent(m_accessible, &error);
        if (error.failed() || !parent) {
            if (parent)
                g_object_unref(parent);
            return nullptr;
        }
        // Above an application is the desktop of all applications: not part of any offer.
        GErrorSlot roleError;
        if (atspi_accessible_get_role(parent, &roleError) == ATSPI_ROLE_DESKTOP_FRAME ||
            roleError.failed()) {
            g_object_unref(parent);
            return nullptr;
        }
        return AtspiAccessibility::adopt(parent);
    }

    bool press() override
    {
        AtspiAction* action = atspi_accessible_get_action_iface(m_accessible);
        if (!action)
            return false;
        GErrorSlot countError;
        const gint actions = atspi_action_get_n_actions(action, &countError);
        bool pressed = false;
        if (!countError.failed() && actions > 0) {
            GErrorSlot error;
            pressed = atspi_action_do_action(action, 0, &error) && !error.failed();
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
        GErrorSlot error;
        return takeString(atspi_accessible_get_accessible_id(m_accessible, &error), error);
    }

    std::optional<QString> markCharacter() override { return std::nullopt; }

    std::optional<bool> selected() override
    {
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
};

// The accessibility bus is announced on the session bus by at-spi-bus-launcher; without
// it libatspi has nowhere to ask and must not be started.
bool accessibilityBusAvailable()
{
    QDBusConnection session = QDBusConnection::sessionBus();
    if (!session.isConnected() || !session.interface())
        return false;
    return session.interface()->isServiceRegistered(QStringLiteral("org.a11y.Bus")).value();
}

} // namespace

AtspiAccessibility::AtspiAccessibility() = default;

AccessibilityElementPtr AtspiAccessibility::adopt(AtspiAccessible* accessible)
{
    return std::make_shared<AtspiElement>(accessible);
}

bool AtspiAccessibility::isTrusted()
{
    if (!m_initialised) {
        if (!accessibilityBusAvailable())
            return false;
        const int status = atspi_init();
        m_initialised = status == 0 || status == 1; // 1: already initialised
    }
    return m_initialised;
}

std::vector<AccessibilityElementPtr> AtspiAccessibility::applicationRoots(const QStringList& names)
{
    std::vector<AccessibilityElementPtr> roots;
    if (!isTrusted())
        return roots;
    AtspiAccessible* desktop = atspi_get_desktop(0);
    if (!desktop)
        return roots;
    GErrorSlot countError;
    const gint count = atspi_accessible_get_child_count(desktop, &countError);
    for (gint i = 0; !countError.failed() && i < count; ++i) {
        GErrorSlot error;
        AtspiAccessible* app = atspi_accessible_get_child_at_index(desktop, i, &error);
        if (error.failed() || !app) {
            if (app)
                g_object_unref(app);
            continue;
        }
        GErrorSlot nameError;
        const std::optional<QString> name =
            takeString(atspi_accessible_get_name(app, &nameError), nameError);
        if (name && names.contains(*name, Qt::CaseInsensitive)) {
            // Read afresh every time: a cached tree would keep showing a call that ended.
            atspi_accessible_set_cache_mask(app, ATSPI_CACHE_NONE);
            atspi_accessible_clear_cache(app);
            roots.push_back(adopt(app));
        } else {
            g_object_unref(app);
        }
    }
    g_object_unref(desktop);
    return roots;
}

QStringList linuxPhoneApplications(const QByteArray& extraNames)
{
    // Common softphones, and the end-to-end tests' own softphone window.
    QStringList names{QStringLiteral("GNOME Calls"), QStringLiteral("Calls"),
                      QStringLiteral("gnome-calls"), QStringLiteral("Linphone"),
                      QStringLiteral("Softphone de test")};
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
