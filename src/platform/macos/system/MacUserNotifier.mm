// The after-call notification through the UserNotifications framework. Compiled with ARC.
// Clicking a notification (its default action) opens the call it names.

#include "notify/DesktopNotifier.h"

#import <Foundation/Foundation.h>
#import <UserNotifications/UserNotifications.h>
#include <dispatch/dispatch.h>

namespace vemira {
class MacUserNotifier;
}

// The framework's delegate calls arrive on a queue of its own: they hop to the main queue,
// where the notifier lives and where it unhooks itself before it goes.
@interface VemiraNotificationDelegate : NSObject <UNUserNotificationCenterDelegate>
@property(nonatomic, assign) vemira::MacUserNotifier* owner;
@end

namespace vemira {

class MacUserNotifier final : public DesktopNotifier {
public:
    MacUserNotifier()
    {
        m_delegate = [VemiraNotificationDelegate new];
        m_delegate.owner = this;
        UNUserNotificationCenter* center = [UNUserNotificationCenter currentNotificationCenter];
        center.delegate = m_delegate;
        VemiraNotificationDelegate* delegate = m_delegate;
        [center requestAuthorizationWithOptions:(UNAuthorizationOptionAlert |
                                                 UNAuthorizationOptionSound)
                              completionHandler:^(BOOL granted, NSError* _Nullable error) {
                                if (granted)
                                    return;
                                QString reason =
                                    error != nil ? QString::fromNSString(error.localizedDescription)
                                                 : QString();
                                dispatch_async(dispatch_get_main_queue(), ^{
                                  if (delegate.owner != nullptr)
                                      delegate.owner->failed(reason);
                                });
                              }];
    }

    ~MacUserNotifier() override
    {
        m_delegate.owner = nullptr;
        UNUserNotificationCenter* center = [UNUserNotificationCenter currentNotificationCenter];
        if (center.delegate == m_delegate)
            center.delegate = nil;
    }

    void show(const CallNotice& notice) override
    {
        UNMutableNotificationContent* content = [UNMutableNotificationContent new];
        content.title = notice.title.toNSString();
        content.body = notice.body.toNSString();
        content.sound = [UNNotificationSound defaultSound];
        UNNotificationRequest* request =
            [UNNotificationRequest requestWithIdentifier:uuidText(notice.callId).toNSString()
                                                 content:content
                                                 trigger:nil];
        VemiraNotificationDelegate* delegate = m_delegate;
        [[UNUserNotificationCenter currentNotificationCenter]
            addNotificationRequest:request
             withCompletionHandler:^(NSError* _Nullable error) {
               if (error == nil)
                   return;
               QString reason = QString::fromNSString(error.localizedDescription);
               dispatch_async(dispatch_get_main_queue(), ^{
                 if (delegate.owner != nullptr)
                     delegate.owner->failed(reason);
               });
             }];
    }

    void activated(const QString& identifier)
    {
        const std::optional<QUuid> id = parseUuid(identifier);
        if (id && onActivated)
            onActivated(*id);
    }

    void failed(const QString& reason)
    {
        if (onError)
            onError(QStringLiteral("Notification de bureau impossible") +
                    (reason.isEmpty() ? QStringLiteral(" : autorisation refusée dans les "
                                                       "réglages Notifications du Mac.")
                                      : QStringLiteral(" : ") + reason));
    }

private:
    VemiraNotificationDelegate* m_delegate = nil;
};

// The framework needs an application bundle: the command-line tool goes without.
std::unique_ptr<DesktopNotifier> createPlatformDesktopNotifier()
{
    if ([[NSBundle mainBundle] bundleIdentifier] == nil)
        return nullptr;
    return std::make_unique<MacUserNotifier>();
}

} // namespace vemira

@implementation VemiraNotificationDelegate

// Shown even while Vemira's window is in front: the owner may be looking elsewhere.
- (void)userNotificationCenter:(UNUserNotificationCenter*)center
       willPresentNotification:(UNNotification*)notification
         withCompletionHandler:
             (void (^)(UNNotificationPresentationOptions options))completionHandler
{
    (void)center;
    (void)notification;
    completionHandler(UNNotificationPresentationOptionBanner |
                      UNNotificationPresentationOptionList | UNNotificationPresentationOptionSound);
}

- (void)userNotificationCenter:(UNUserNotificationCenter*)center
    didReceiveNotificationResponse:(UNNotificationResponse*)response
             withCompletionHandler:(void (^)(void))completionHandler
{
    (void)center;
    if ([response.actionIdentifier isEqualToString:UNNotificationDefaultActionIdentifier]) {
        QString identifier = QString::fromNSString(response.notification.request.identifier);
        dispatch_async(dispatch_get_main_queue(), ^{
          if (self.owner != nullptr)
              self.owner->activated(identifier);
        });
    }
    completionHandler();
}

@end
