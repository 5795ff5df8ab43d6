// Model of <AvailabilityMacros.h> (usr/include): the older spelling of the same version macros.
// Declaration-only model for scripts/check-macos.sh; never used to build a product.
#pragma once
#include <Availability.h>
#define MAC_OS_X_VERSION_10_6 1060
#define MAC_OS_X_VERSION_MIN_REQUIRED __MAC_OS_X_VERSION_MIN_REQUIRED
#define MAC_OS_X_VERSION_MAX_ALLOWED __MAC_OS_X_VERSION_MAX_ALLOWED
