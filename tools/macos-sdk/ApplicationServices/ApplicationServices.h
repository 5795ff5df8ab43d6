// Model of <ApplicationServices/ApplicationServices.h>: the parts of HIServices' AXError.h,
// AXUIElement.h, AXAttributeConstants.h, AXActionConstants.h and AXNotificationConstants.h
// that the macOS backends use.
// Declaration-only model for scripts/check-macos.sh; never used to build a product.
#pragma once
#include <CoreFoundation/CoreFoundation.h>
#include <sys/types.h>

#pragma clang assume_nonnull begin
#ifdef __cplusplus
extern "C" {
#endif

// AXError.h
typedef enum AXError : int32_t AXError;
enum AXError : int32_t {
    kAXErrorSuccess = 0,
    kAXErrorFailure = -25200,
    kAXErrorIllegalArgument = -25201,
    kAXErrorInvalidUIElement = -25202,
    kAXErrorCannotComplete = -25204,
    kAXErrorAttributeUnsupported = -25205,
    kAXErrorActionUnsupported = -25206,
    kAXErrorNotificationUnsupported = -25207,
    kAXErrorNotificationAlreadyRegistered = -25209,
    kAXErrorAPIDisabled = -25211,
    kAXErrorNoValue = -25212,
};

// AXUIElement.h
typedef const struct __attribute__((objc_bridge(id))) __AXUIElement* AXUIElementRef;
Boolean AXIsProcessTrusted(void);
Boolean AXIsProcessTrustedWithOptions(CFDictionaryRef _Nullable options);
extern CFStringRef kAXTrustedCheckOptionPrompt;
CFTypeID AXUIElementGetTypeID(void);
AXError AXUIElementCopyAttributeValue(AXUIElementRef element, CFStringRef attribute,
                                      CFTypeRef _Nullable* _Nonnull value);
AXError AXUIElementPerformAction(AXUIElementRef element, CFStringRef action);
AXUIElementRef AXUIElementCreateApplication(pid_t pid);
AXError AXUIElementSetMessagingTimeout(AXUIElementRef element, float timeoutInSeconds);
AXError AXUIElementGetPid(AXUIElementRef element, pid_t* pid);

typedef struct __attribute__((objc_bridge(id))) __AXObserver* AXObserverRef;
typedef void (*AXObserverCallback)(AXObserverRef observer, AXUIElementRef element,
                                   CFStringRef notification, void* _Nullable refcon);
AXError AXObserverCreate(pid_t application, AXObserverCallback callback,
                         AXObserverRef _Nullable* _Nonnull outObserver);
AXError AXObserverAddNotification(AXObserverRef observer, AXUIElementRef element,
                                  CFStringRef notification, void* _Nullable refcon);
CFRunLoopSourceRef AXObserverGetRunLoopSource(AXObserverRef observer);

#ifdef __cplusplus
}
#endif
#pragma clang assume_nonnull end

// AXAttributeConstants.h
#define kAXRoleAttribute CFSTR("AXRole")
#define kAXTitleAttribute CFSTR("AXTitle")
#define kAXDescriptionAttribute CFSTR("AXDescription")
#define kAXHelpAttribute CFSTR("AXHelp")
#define kAXValueAttribute CFSTR("AXValue")
#define kAXChildrenAttribute CFSTR("AXChildren")
#define kAXParentAttribute CFSTR("AXParent")
#define kAXMenuBarAttribute CFSTR("AXMenuBar")
#define kAXIdentifierAttribute CFSTR("AXIdentifier")
#define kAXMenuItemMarkCharAttribute CFSTR("AXMenuItemMarkChar")
#define kAXSelectedAttribute CFSTR("AXSelected")

// AXNotificationConstants.h
#define kAXCreatedNotification CFSTR("AXCreated")
#define kAXUIElementDestroyedNotification CFSTR("AXUIElementDestroyed")
#define kAXValueChangedNotification CFSTR("AXValueChanged")
#define kAXWindowCreatedNotification CFSTR("AXWindowCreated")

// AXActionConstants.h
#define kAXPressAction CFSTR("AXPress")
#define kAXCancelAction CFSTR("AXCancel")
