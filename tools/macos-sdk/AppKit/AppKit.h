// Model of <AppKit/AppKit.h>: the parts of NSWorkspace.h and NSRunningApplication.h that the
// macOS backends use.
// Declaration-only model for scripts/check-macos.sh; never used to build a product.
#pragma once
#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

// NSRunningApplication.h
@interface NSRunningApplication : NSObject
@property(nullable, readonly, copy) NSString* bundleIdentifier;
@property(readonly) pid_t processIdentifier;
@end

// NSWorkspace.h
@interface NSWorkspaceOpenConfiguration : NSObject <NSCopying>
+ (instancetype)configuration;
@property BOOL activates;
@end

@interface NSWorkspace : NSObject
@property(class, readonly, strong) NSWorkspace* sharedWorkspace;
@property(readonly, strong) NSNotificationCenter* notificationCenter;
@property(readonly, copy) NSArray<NSRunningApplication*>* runningApplications;
- (BOOL)openURL:(NSURL*)url;
- (void)activateFileViewerSelectingURLs:(NSArray<NSURL*>*)fileURLs;
- (nullable NSURL*)URLForApplicationWithBundleIdentifier:(NSString*)bundleIdentifier;
- (void)openApplicationAtURL:(NSURL*)applicationURL
               configuration:(NSWorkspaceOpenConfiguration*)configuration
           completionHandler:(void (^_Nullable)(NSRunningApplication* _Nullable app,
                                                NSError* _Nullable error))completionHandler;
@end

FOUNDATION_EXPORT NSNotificationName const NSWorkspaceWillSleepNotification;
FOUNDATION_EXPORT NSNotificationName const NSWorkspaceDidWakeNotification;
FOUNDATION_EXPORT NSNotificationName const NSWorkspaceWillPowerOffNotification;

NS_ASSUME_NONNULL_END
