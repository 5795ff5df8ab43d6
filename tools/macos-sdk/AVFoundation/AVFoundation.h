// Model of <AVFoundation/AVFoundation.h>: the capture authorisation of AVCaptureDevice.h and the
// media type of AVMediaFormat.h.
// Declaration-only model for scripts/check-macos.sh; never used to build a product.
#pragma once
#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

// AVMediaFormat.h
typedef NSString* AVMediaType;
FOUNDATION_EXPORT AVMediaType const AVMediaTypeAudio;

// AVCaptureDevice.h
typedef NS_ENUM(NSInteger, AVAuthorizationStatus) {
    AVAuthorizationStatusNotDetermined = 0,
    AVAuthorizationStatusRestricted = 1,
    AVAuthorizationStatusDenied = 2,
    AVAuthorizationStatusAuthorized = 3,
};

@interface AVCaptureDevice : NSObject
+ (AVAuthorizationStatus)authorizationStatusForMediaType:(AVMediaType)mediaType;
@end

NS_ASSUME_NONNULL_END
