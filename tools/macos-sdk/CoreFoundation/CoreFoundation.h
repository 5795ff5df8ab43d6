// Model of <CoreFoundation/CoreFoundation.h>: the parts of CFBase.h, CFArray.h, CFNumber.h
// (CFBoolean), CFString.h, CFDictionary.h and CFRunLoop.h that the macOS backends use.
// Declaration-only model for scripts/check-macos.sh; never used to build a product.
#pragma once
#include <MacTypes.h>
#include <stdint.h>

#pragma clang assume_nonnull begin
#ifdef __cplusplus
extern "C" {
#endif

// CFBase.h
typedef const void* CFTypeRef;
typedef unsigned long CFTypeID;
typedef signed long CFIndex;
typedef const struct __attribute__((objc_bridge(NSString))) __CFString* CFStringRef;
CFTypeRef CFRetain(CFTypeRef cf);
void CFRelease(CFTypeRef cf);
CFTypeID CFGetTypeID(CFTypeRef cf);
Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2);

// CFArray.h
typedef const struct __attribute__((objc_bridge(NSArray))) __CFArray* CFArrayRef;
CFTypeID CFArrayGetTypeID(void);
CFIndex CFArrayGetCount(CFArrayRef theArray);
const void* CFArrayGetValueAtIndex(CFArrayRef theArray, CFIndex idx);

// CFNumber.h
typedef const struct __attribute__((objc_bridge(NSNumber))) __CFBoolean* CFBooleanRef;
extern const CFBooleanRef kCFBooleanTrue;
extern const CFBooleanRef kCFBooleanFalse;
CFTypeID CFBooleanGetTypeID(void);
Boolean CFBooleanGetValue(CFBooleanRef boolean);

// CFString.h
CFTypeID CFStringGetTypeID(void);
#define CFSTR(cStr) ((CFStringRef)__builtin___CFStringMakeConstantString("" cStr ""))

// CFDictionary.h
typedef const struct __attribute__((objc_bridge(NSDictionary))) __CFDictionary* CFDictionaryRef;

// CFRunLoop.h
typedef struct __attribute__((objc_bridge_mutable(id))) __CFRunLoop* CFRunLoopRef;
typedef struct __attribute__((objc_bridge_mutable(id))) __CFRunLoopSource* CFRunLoopSourceRef;
typedef CFStringRef CFRunLoopMode;
extern const CFRunLoopMode kCFRunLoopDefaultMode;
CFRunLoopRef CFRunLoopGetMain(void);
void CFRunLoopAddSource(CFRunLoopRef rl, CFRunLoopSourceRef source, CFRunLoopMode mode);
void CFRunLoopRemoveSource(CFRunLoopRef rl, CFRunLoopSourceRef source, CFRunLoopMode mode);

#ifdef __cplusplus
}
#endif
#pragma clang assume_nonnull end
