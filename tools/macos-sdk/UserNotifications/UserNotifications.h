// Model of <UserNotifications/UserNotifications.h>: the parts of UNUserNotificationCenter.h,
// UNNotificationContent.h, UNNotificationRequest.h, UNNotification.h, UNNotificationResponse.h,
// UNNotificationSound.h and UNNotificationTrigger.h that the macOS backends use.
// Declaration-only model for scripts/check-macos.sh; never used to build a product.
#pragma once
#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

// UNNotificationSound.h
@interface UNNotificationSound : NSObject <NSCopying>
@property(class, readonly, copy) UNNotificationSound* defaultSound;
@end

// UNNotificationContent.h
@interface UNNotificationContent : NSObject <NSCopying>
@property(readonly, copy) NSString* title;
@property(readonly, copy) NSString* body;
@end

@interface UNMutableNotificationContent : UNNotificationContent
@property(copy) NSString* title;
@property(copy) NSString* body;
@property(copy, nullable) UNNotificationSound* sound;
@end

// UNNotificationTrigger.h
@interface UNNotificationTrigger : NSObject <NSCopying>
@end

// UNNotificationRequest.h
@interface UNNotificationRequest : NSObject <NSCopying>
@property(readonly, copy) NSString* identifier;
@property(readonly, copy) UNNotificationContent* content;
+ (instancetype)requestWithIdentifier:(NSString*)identifier
                              content:(UNNotificationContent*)content
                              trigger:(nullable UNNotificationTrigger*)trigger;
@end

// UNNotification.h
@interface UNNotification : NSObject <NSCopying>
@property(readonly, copy) UNNotificationRequest* request;
@end

// UNNotificationResponse.h
FOUNDATION_EXPORT NSString* const UNNotificationDefaultActionIdentifier;

@interface UNNotificationResponse : NSObject <NSCopying>
@property(readonly, copy) UNNotification* notification;
@property(readonly, copy) NSString* actionIdentifier;
@end

// UNUserNotificationCenter.h
typedef NS_OPTIONS(NSUInteger, UNAuthorizationOptions) {
    UNAuthorizationOptionBadge = (1 << 0),
    UNAuthorizationOptionSound = (1 << 1),
    UNAuthorizationOptionAlert = (1 << 2),
};

typedef NS_OPTIONS(NSUInteger, UNNotificationPresentationOptions) {
    UNNotificationPresentationOptionBadge = (1 << 0),
    UNNotificationPresentationOptionSound = (1 << 1),
    UNNotificationPresentationOptionList = (1 << 3),
    UNNotificationPresentationOptionBanner = (1 << 4),
};

@class UNUserNotificationCenter;

@protocol UNUserNotificationCenterDelegate <NSObject>
@optional
- (void)userNotificationCenter:(UNUserNotificationCenter*)center
       willPresentNotification:(UNNotification*)notification
         withCompletionHandler:
             (void (^)(UNNotificationPresentationOptions options))completionHandler;
- (void)userNotificationCenter:(UNUserNotificationCenter*)center
    didReceiveNotificationResponse:(UNNotificationResponse*)response
             withCompletionHandler:(void (^)(void))completionHandler;
@end

@interface UNUserNotificationCenter : NSObject
@property(nonatomic, nullable, weak) id<UNUserNotificationCenterDelegate> delegate;
+ (UNUserNotificationCenter*)currentNotificationCenter;
- (void)requestAuthorizationWithOptions:(UNAuthorizationOptions)options
                      completionHandler:
                          (void (^)(BOOL granted, NSError* _Nullable error))completionHandler;
- (void)addNotificationRequest:(UNNotificationRequest*)request
         withCompletionHandler:(nullable void (^)(NSError* _Nullable error))completionHandler;
@end

NS_ASSUME_NONNULL_END
