// macOS backend of the accessibility-element interface: AXUIElement for the tree,
// NSWorkspace for the running applications, an AXObserver per application for its changes.
// Thin on purpose: every decision is made in src/phone over the interface. Compiled with ARC; Core
// Foundation values are released by hand (the "Copy"/"Create" rule).
#include "phone/AccessibilityElement.h"

#import <AppKit/AppKit.h>
#include <ApplicationServices/ApplicationServices.h>
#include <QString>
#include <dispatch/dispatch.h>
#include <map>

namespace vemira {

namespace {

// Owns one Core Foundation reference.
class CFOwned {
public:
    CFOwned() = default;
    explicit CFOwned(CFTypeRef value) : m_value(value) {}
    ~CFOwned()
    {
        if (m_value)
            CFRelease(m_value);
    }
    CFOwned(const CFOwned&) = delete;
    CFOwned& operator=(const CFOwned&) = delete;
    CFTypeRef get() const { return m_value; }
    CFTypeRef* out() { return &m_value; }

private:
    CFTypeRef m_value = nullptr;
};

QString toQString(CFStringRef text)
{
    return QString::fromNSString((__bridge NSString*)text);
}

class AXElement final : public AccessibilityElement {
public:
    // Takes over one reference to `element`.
    explicit AXElement(AXUIElementRef element) : m_element(element) {}
    ~AXElement() override { CFRelease(m_element); }
    AXElement(const AXElement&) = delete;
    AXElement& operator=(const AXElement&) = delete;

    static AccessibilityElementPtr retaining(CFTypeRef element)
    {
        CFRetain(element);
        return std::make_shared<AXElement>(static_cast<AXUIElementRef>(element));
    }

    AXUIElementRef ref() const { return m_element; }

    bool sameAs(const AccessibilityElement& other) const override
    {
        const auto* element = dynamic_cast<const AXElement*>(&other);
        return element && CFEqual(m_element, element->m_element);
    }

    void setMessagingTimeout(double seconds) override
    {
        AXUIElementSetMessagingTimeout(m_element, static_cast<float>(seconds));
    }

    std::optional<QString> role() override { return string(kAXRoleAttribute); }

    std::optional<QString> label(LabelAttribute attribute) override
    {
        switch (attribute) {
        case LabelAttribute::Title:
            return string(kAXTitleAttribute);
        case LabelAttribute::Description:
            return string(kAXDescriptionAttribute);
        case LabelAttribute::Help:
            return string(kAXHelpAttribute);
        case LabelAttribute::Value:
            return string(kAXValueAttribute);
        }
        return std::nullopt;
    }

    std::vector<AccessibilityElementPtr> children() override
    {
        std::vector<AccessibilityElementPtr> result;
        CFOwned value;
        if (AXUIElementCopyAttributeValue(m_element, kAXChildrenAttribute, value.out()) !=
                kAXErrorSuccess ||
            !value.get() || CFGetTypeID(value.get()) != CFArrayGetTypeID())
            return result;
        const auto array = static_cast<CFArrayRef>(value.get());
        const CFIndex count = CFArrayGetCount(array);
        result.reserve(size_t(count));
        for (CFIndex i = 0; i < count; ++i) {
            // Array items are borrowed ("Get" rule): retained for our own wrapper.
            CFTypeRef item = CFArrayGetValueAtIndex(array, i);
            if (item && CFGetTypeID(item) == AXUIElementGetTypeID())
                result.push_back(retaining(item));
        }
        return result;
    }

    AccessibilityElementPtr parent() override { return element(kAXParentAttribute); }

    bool press() override
    {
        return AXUIElementPerformAction(m_element, kAXPressAction) == kAXErrorSuccess;
    }

    bool cancel() override
    {
        return AXUIElementPerformAction(m_element, kAXCancelAction) == kAXErrorSuccess;
    }

    AccessibilityElementPtr menuBar() override { return element(kAXMenuBarAttribute); }

    std::optional<QString> identifier() override { return string(kAXIdentifierAttribute); }

    std::optional<QString> markCharacter() override { return string(kAXMenuItemMarkCharAttribute); }

    std::optional<bool> selected() override
    {
        CFOwned value;
        if (AXUIElementCopyAttributeValue(m_element, kAXSelectedAttribute, value.out()) !=
                kAXErrorSuccess ||
            !value.get() || CFGetTypeID(value.get()) != CFBooleanGetTypeID())
            return std::nullopt;
        return CFBooleanGetValue(static_cast<CFBooleanRef>(value.get()));
    }

private:
    std::optional<QString> string(CFStringRef attribute)
    {
        CFOwned value;
        if (AXUIElementCopyAttributeValue(m_element, attribute, value.out()) != kAXErrorSuccess ||
            !value.get() || CFGetTypeID(value.get()) != CFStringGetTypeID())
            return std::nullopt;
        return toQString(static_cast<CFStringRef>(value.get()));
    }

    AccessibilityElementPtr element(CFStringRef attribute)
    {
        CFOwned value;
        if (AXUIElementCopyAttributeValue(m_element, attribute, value.out()) != kAXErrorSuccess ||
            !value.get() || CFGetTypeID(value.get()) != AXUIElementGetTypeID())
            return nullptr;
        return retaining(value.get()); // `value` releases its own reference
    }

    AXUIElementRef m_element;
};

// What the applications announce, counted per process: an element created or destroyed, a
// value changed, a window opened. Each observer's source is on the main run loop, so the
// counts move on the main thread, between two looks.
class ChangeWatch {
public:
    ChangeWatch() = default;
    ChangeWatch(const ChangeWatch&) = delete;
    ChangeWatch& operator=(const ChangeWatch&) = delete;

    // Starts watching `pid` the first time. Absent when its application does not announce
    // all four changes: anything may then have moved.
    std::optional<quint64> changes(pid_t pid)
    {
        auto found = m_watched.find(pid);
        if (found == m_watched.end())
            found = m_watched.emplace(pid, std::make_unique<Watched>(pid)).first;
        if (!found->second->watching)
            return std::nullopt;
        return found->second->count;
    }

private:
    struct Watched {
        explicit Watched(pid_t pid)
        {
            if (AXObserverCreate(pid, &Watched::changed, &observer) != kAXErrorSuccess || !observer)
                return;
            // "Create" rule: released by `application` once the notifications are added.
            const CFOwned application(AXUIElementCreateApplication(pid));
            watching = application.get() != nullptr;
            for (CFStringRef notification :
                 {kAXCreatedNotification, kAXUIElementDestroyedNotification,
                  kAXValueChangedNotification, kAXWindowCreatedNotification}) {
                const AXError added = AXObserverAddNotification(
                    observer, static_cast<AXUIElementRef>(application.get()), notification, this);
                watching = watching && (added == kAXErrorSuccess ||
                                        added == kAXErrorNotificationAlreadyRegistered);
            }
            CFRunLoopAddSource(CFRunLoopGetMain(), AXObserverGetRunLoopSource(observer),
                               kCFRunLoopDefaultMode);
        }
        ~Watched()
        {
            if (!observer)
                return;
            CFRunLoopRemoveSource(CFRunLoopGetMain(), AXObserverGetRunLoopSource(observer),
                                  kCFRunLoopDefaultMode);
            CFRelease(observer);
        }
        Watched(const Watched&) = delete;
        Watched& operator=(const Watched&) = delete;

        static void changed(AXObserverRef, AXUIElementRef, CFStringRef, void* watched)
        {
            ++static_cast<Watched*>(watched)->count;
        }

        AXObserverRef observer = nullptr;
        bool watching = false;
        quint64 count = 0;
    };

    // A process that quit keeps its observer until this object goes: a few, never asked.
    std::map<pid_t, std::unique_ptr<Watched>> m_watched;
};

class AXAccessibility final : public Accessibility {
public:
    bool isTrusted() override { return AXIsProcessTrusted(); }

    bool requestTrust() override
    {
        @autoreleasepool {
            NSDictionary* options = @{(__bridge NSString*)kAXTrustedCheckOptionPrompt : @YES};
            return AXIsProcessTrustedWithOptions((__bridge CFDictionaryRef)options);
        }
    }

    std::vector<AccessibilityElementPtr> applicationRoots(const QStringList& ids) override
    {
        std::vector<AccessibilityElementPtr> roots;
        @autoreleasepool {
            for (NSRunningApplication* app in NSWorkspace.sharedWorkspace.runningApplications) {
                NSString* bundle = app.bundleIdentifier;
                if (!bundle || !ids.contains(QString::fromNSString(bundle)))
                    continue;
                const pid_t pid = app.processIdentifier;
                if (pid <= 0)
                    continue;
                // "Create" rule: the new element is ours, handed to its wrapper.
                if (AXUIElementRef root = AXUIElementCreateApplication(pid))
                    roots.push_back(std::make_shared<AXElement>(root));
            }
        }
        return roots;
    }

    // The list of applications is NSWorkspace's, read afresh at each look without asking any
    // of them: only their own trees are counted.
    std::optional<quint64> structureChanges(AccessibilityElement* root) override
    {
        const auto* element = dynamic_cast<const AXElement*>(root);
        pid_t pid = 0;
        if (!element || AXUIElementGetPid(element->ref(), &pid) != kAXErrorSuccess || pid <= 0)
            return std::nullopt;
        return m_changes.changes(pid);
    }

    bool canOpenApplication(const QString& id) override
    {
        @autoreleasepool {
            return [NSWorkspace.sharedWorkspace
                       URLForApplicationWithBundleIdentifier:id.toNSString()] != nil;
        }
    }

    void openApplication(const QString& id, std::function<void()> done) override
    {
        @autoreleasepool {
            NSURL* url =
                [NSWorkspace.sharedWorkspace URLForApplicationWithBundleIdentifier:id.toNSString()];
            if (!url) {
                done();
                return;
            }
            NSWorkspaceOpenConfiguration* configuration =
                [NSWorkspaceOpenConfiguration configuration];
            configuration.activates = YES;
            // The handler runs on a concurrent queue; our steps belong to the main thread.
            auto shared = std::make_shared<std::function<void()>>(std::move(done));
            [NSWorkspace.sharedWorkspace openApplicationAtURL:url
                                                configuration:configuration
                                            completionHandler:^(NSRunningApplication*, NSError*) {
                                              dispatch_async(dispatch_get_main_queue(), ^{
                                                (*shared)();
                                              });
                                            }];
        }
    }

private:
    ChangeWatch m_changes;
};

} // namespace

std::unique_ptr<Accessibility> createPlatformAccessibility()
{
    return std::make_unique<AXAccessibility>();
}

QStringList searchedPhoneApplications()
{
    return {QStringLiteral("com.apple.mobilephone"), QStringLiteral("com.apple.FaceTime"),
            QStringLiteral("com.apple.TelephonyUtilities.PhoneCallUI"),
            QStringLiteral("com.apple.notificationcenterui")};
}

QString phoneApplicationId()
{
    return QStringLiteral("com.apple.mobilephone");
}

} // namespace vemira
