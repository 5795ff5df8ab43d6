#include "audio/CoreAudioRules.h"

namespace vemira::coreaudio {

bool deviceChanged(const DeviceState& opened, const DeviceState& now)
{
    return !now.alive || now.format != opened.format;
}

DeviceFormat voiceProcessingFormat(const DeviceFormat& device)
{
    if (!device.isUsable())
        return {};
    return DeviceFormat{device.sampleRate, 1};
}

AppError startFailure(std::int32_t status)
{
    switch (status) {
    case kBadDeviceStatus:
        return AudioDeviceIO::deviceUnavailable();
    case kPermissionsStatus:
        return AppError(QStringLiteral("Un autre programme garde le périphérique audio pour lui "
                                       "seul. Fermez-le, puis réessayez."));
    default:
        return AppError::withStatus(QStringLiteral("Le son du Mac n’a pas pu démarrer"), status);
    }
}

AppError echoFailure(std::int32_t status)
{
    if (status == kBadDeviceStatus)
        return AudioDeviceIO::deviceUnavailable();
    return AppError::withStatus(QStringLiteral("Impossible d’activer l’annulation d’écho du Mac"),
                                status);
}

bool isRefusedSetting(std::int32_t status)
{
    switch (status) {
    case kInvalidPropertyValueStatus:
    case kPropertyNotWritableStatus:
    case kInvalidScopeStatus:
    case kInvalidElementStatus:
    case kInvalidPropertyStatus:
        return true;
    default:
        return false;
    }
}

} // namespace vemira::coreaudio
