// Model of <Availability.h> (usr/include): the macOS version macros Qt compares against.
// Declaration-only model for scripts/check-macos.sh; never used to build a product.
#pragma once
#define __MAC_12_0 120000
#define __MAC_13_0 130000
#define __MAC_14_0 140000
#define __MAC_OS_X_VERSION_MIN_REQUIRED __MAC_12_0
#define __MAC_OS_X_VERSION_MAX_ALLOWED __MAC_14_0
