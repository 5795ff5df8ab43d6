// Model of <TargetConditionals.h> (usr/include): the macOS target, as Qt's platform detection
// reads it. Declaration-only model for scripts/check-macos.sh; never used to build a product.
#pragma once
#define TARGET_OS_MAC 1
#define TARGET_OS_OSX 1
#define TARGET_OS_IPHONE 0
#define TARGET_OS_IOS 0
#define TARGET_OS_WATCH 0
#define TARGET_OS_TV 0
