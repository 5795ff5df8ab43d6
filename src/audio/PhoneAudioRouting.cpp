#include "audio/PhoneAudioRouting.h"

#include "audio/VirtualAudioDevices.h"

#include <QtGlobal>

namespace vemira {

#ifndef Q_OS_LINUX
// The macOS Phone application chooses its devices in its own menu (NativeAudioSetup).
std::unique_ptr<PhoneAudioRouting> createPlatformPhoneAudioRouting()
{
    return nullptr;
}

// There the companion driver provides the devices.
std::unique_ptr<VirtualAudioDevices> createPlatformVirtualAudioDevices()
{
    return nullptr;
}
#endif

} // namespace vemira
