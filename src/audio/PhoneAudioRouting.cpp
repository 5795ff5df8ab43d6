#include "audio/PhoneAudioRouting.h"

#include <QtGlobal>

namespace vemira {

#ifndef Q_OS_LINUX
// The macOS Phone application chooses its devices in its own menu (NativeAudioSetup).
std::unique_ptr<PhoneAudioRouting> createPlatformPhoneAudioRouting()
{
    return nullptr;
}
#endif

} // namespace vemira
