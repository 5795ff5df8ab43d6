// Model of <ServiceManagement/ServiceManagement.h>: the parts of SMAppService.h that the macOS
// backends use (macOS 13 and later).
// Declaration-only model for scripts/check-macos.sh; never used to build a product.
#pragma once
#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

typedef NS_ENUM(NSInteger, SMAppServiceStatus) {
    SMAppServiceStatusNotRegistered = 0,
    SMAppServiceStatusEnabled = 1,
    SMAppServiceStatusRequiresApproval = 2,
    SMAppServiceStatusNotFound = 3,
};

@interface SMAppService : NSObject
@property(class, readonly) SMAppService* mainAppService;
- (BOOL)registerAndReturnError:(NSError* _Nullable*)error;
- (BOOL)unregisterAndReturnError:(NSError* _Nullable*)error;
@property(readonly) SMAppServiceStatus status;
+ (void)openSystemSettingsLoginItems;
@end

NS_ASSUME_NONNULL_END
