// Model of <MacTypes.h> (usr/include): the fixed-width types and noErr shared by Core Audio,
// Audio Toolbox and Core Foundation, as on a 64-bit Mac.
// Declaration-only model for scripts/check-macos.sh; never used to build a product.
#pragma once
typedef unsigned char UInt8;
typedef signed short SInt16;
typedef unsigned int UInt32;
typedef signed int SInt32;
typedef unsigned long long UInt64;
typedef float Float32;
typedef double Float64;
typedef SInt32 OSStatus;
typedef UInt32 FourCharCode;
typedef FourCharCode OSType;
typedef unsigned char Boolean;
enum { noErr = 0 };
