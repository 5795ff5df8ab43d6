// macOS backend of the accessibility-element interface: AXUIElement for the tree,
// NSWorkspace for the running applications. Thin on purpose: every decision is made in
// src/phone over the interface. Compiled with ARC; Core Foundation values are released
// by hand (the "Copy"/"Create" rule).
#include "phone/AccessibilityElement.h"

#import <AppKit/AppKit.h>
#include <ApplicationServices/ApplicationServices.h>
#include <QString>
#include <dispatch/dispatch.h>

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
