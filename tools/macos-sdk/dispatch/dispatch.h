// Model of <dispatch/dispatch.h>: the parts of dispatch/object.h and dispatch/queue.h that the
// macOS backends use. In Objective-C with ARC, dispatch objects are Objective-C objects
// (OS_OBJECT_USE_OBJC) owned by ARC, so dispatch_release is unavailable there.
// Declaration-only model for scripts/check-macos.sh; never used to build a product.
#pragma once
#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

// os/object.h, dispatch/object.h
@protocol OS_dispatch_object <NSObject>
@end
typedef NSObject<OS_dispatch_object>* dispatch_object_t;
typedef void (^dispatch_block_t)(void);
#if __has_feature(objc_arc)
extern "C" void dispatch_release(dispatch_object_t object)
    __attribute__((unavailable("not available in automatic reference counting mode")));
#else
extern "C" void dispatch_release(dispatch_object_t object);
#endif

// dispatch/queue.h
@protocol OS_dispatch_queue <OS_dispatch_object>
@end
@protocol OS_dispatch_queue_serial <OS_dispatch_queue>
@end
@protocol OS_dispatch_queue_main <OS_dispatch_queue_serial>
@end
@protocol OS_dispatch_queue_attr <OS_dispatch_object>
@end
typedef NSObject<OS_dispatch_queue>* dispatch_queue_t;
typedef NSObject<OS_dispatch_queue_main>* dispatch_queue_main_t;
typedef NSObject<OS_dispatch_queue_attr>* dispatch_queue_attr_t;
#define DISPATCH_QUEUE_SERIAL NULL

extern "C" {
dispatch_queue_main_t dispatch_get_main_queue(void);
dispatch_queue_t dispatch_queue_create(const char* _Nullable label,
                                       dispatch_queue_attr_t _Nullable attr);
void dispatch_async(dispatch_queue_t queue, dispatch_block_t block);
void dispatch_sync(dispatch_queue_t queue, __attribute__((noescape)) dispatch_block_t block);
}

NS_ASSUME_NONNULL_END
