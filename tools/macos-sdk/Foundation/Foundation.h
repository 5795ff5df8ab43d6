// Model of <Foundation/Foundation.h>: the parts of objc/objc.h, NSObjCRuntime.h, NSObject.h,
// NSEnumerator.h, NSString.h, NSArray.h, NSDictionary.h, NSValue.h (NSNumber), NSURL.h,
// NSError.h, NSNotification.h, NSOperation.h and NSBundle.h that the macOS backends use.
// Declaration-only model for scripts/check-macos.sh; never used to build a product.
#pragma once
#include <CoreFoundation/CoreFoundation.h>
#include <stddef.h>
#include <sys/types.h>

// objc/objc.h (BOOL is the C++ bool on Apple silicon)
typedef bool BOOL;
#define YES __objc_yes
#define NO __objc_no
#define nil nullptr

// NSObjCRuntime.h
typedef long NSInteger;
typedef unsigned long NSUInteger;
#define NS_ASSUME_NONNULL_BEGIN _Pragma("clang assume_nonnull begin")
#define NS_ASSUME_NONNULL_END _Pragma("clang assume_nonnull end")
#define NS_ENUM(_type, _name)                                                                      \
    enum _name : _type _name;                                                                      \
    enum _name : _type
#define NS_OPTIONS(_type, _name)                                                                   \
    _type _name;                                                                                   \
    enum : _type
#define FOUNDATION_EXPORT extern "C"

NS_ASSUME_NONNULL_BEGIN

// NSObject.h
@protocol NSObject
- (BOOL)isEqual:(id)object;
@end

__attribute__((objc_root_class))
@interface NSObject<NSObject>
+ (instancetype)alloc;
+ (instancetype)new;
- (instancetype)init;
@end

@protocol NSCopying
@end

// NSEnumerator.h
typedef struct {
    unsigned long state;
    id __unsafe_unretained _Nullable* _Nullable itemsPtr;
    unsigned long* _Nullable mutationsPtr;
    unsigned long extra[5];
} NSFastEnumerationState;

@protocol NSFastEnumeration
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState*)state
                                  objects:(id __unsafe_unretained _Nullable[_Nonnull])buffer
                                    count:(NSUInteger)len;
@end

// NSString.h
@interface NSString : NSObject <NSCopying>
- (BOOL)isEqualToString:(NSString*)aString;
@end

// NSArray.h
@interface NSArray<__covariant ObjectType> : NSObject <NSCopying, NSFastEnumeration>
+ (instancetype)arrayWithObjects:(const ObjectType _Nonnull[_Nonnull])objects count:(NSUInteger)cnt;
@end

// NSDictionary.h
@interface NSDictionary<__covariant KeyType, __covariant ObjectType> : NSObject <NSCopying>
+ (instancetype)dictionaryWithObjects:(const ObjectType _Nonnull[_Nullable])objects
                              forKeys:(const KeyType<NSCopying> _Nonnull[_Nullable])keys
                                count:(NSUInteger)cnt;
@end

// NSValue.h
@interface NSValue : NSObject <NSCopying>
@end
@interface NSNumber : NSValue
+ (NSNumber*)numberWithBool:(BOOL)value;
@end

// NSURL.h
@interface NSURL : NSObject <NSCopying>
+ (nullable instancetype)URLWithString:(NSString*)URLString;
+ (NSURL*)fileURLWithPath:(NSString*)path;
@end

// NSError.h
@interface NSError : NSObject <NSCopying>
@property(readonly) NSInteger code;
@property(readonly, copy) NSString* localizedDescription;
@end

// NSBundle.h
@interface NSBundle : NSObject
@property(class, readonly, strong) NSBundle* mainBundle;
@property(nullable, readonly, copy) NSString* bundleIdentifier;
@end

// NSOperation.h
@interface NSOperationQueue : NSObject
@property(class, readonly, strong) NSOperationQueue* mainQueue;
@end

// NSNotification.h
typedef NSString* NSNotificationName;

@interface NSNotification : NSObject <NSCopying>
@end

@interface NSNotificationCenter : NSObject
- (id<NSObject>)addObserverForName:(nullable NSNotificationName)name
                            object:(nullable id)obj
                             queue:(nullable NSOperationQueue*)queue
                        usingBlock:(void (^)(NSNotification* notification))block;
- (void)removeObserver:(id)observer;
@end

NS_ASSUME_NONNULL_END
