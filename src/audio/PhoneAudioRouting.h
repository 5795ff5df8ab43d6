#pragma once

#include "core/AppError.h"

#include <QString>
#include <QStringList>
#include <memory>

namespace vemira {

// The phone application whose audio belongs to the call.
struct PhoneStreamOwner {
    qint64 processId = 0; // 0 when unknown
    // Application or program names its streams may carry, compared without case.
    QStringList names;
};

// What the routing did during one call.
struct PhoneRoutingCounts {
    int moved = 0;    // streams put onto the virtual devices
    int returned = 0; // streams put back where they were
    int closed = 0;   // streams the application closed before the end of the call
    int left = 0;     // streams someone moved elsewhere meanwhile: left where they are
    bool operator==(const PhoneRoutingCounts&) const = default;
};

// Sends a phone application's call audio through the virtual devices for the length of a
// call, on systems where the application has no device choice of its own that we drive (its
// speaker goes to the call device, its microphone comes from the voice device), and puts
// everything back afterwards. Only that application's call streams are touched, including
// those it opens while the call is under way. Main thread only.
class PhoneAudioRouting {
public:
    virtual ~PhoneAudioRouting() = default;

    // Starts routing; a second call while routing does nothing. Fails when the sound server or
    // one of the two devices cannot be reached.
    virtual Status route(const PhoneStreamOwner& owner, const QString& callUID,
                         const QString& voiceUID) = 0;
    // Ends routing: the streams still on the virtual devices go back. Never fails; nothing
    // happens when not routing.
    virtual void release() = 0;
    virtual bool routing() const = 0;
    // Counts of the current or last routing.
    virtual PhoneRoutingCounts counts() const = 0;
};

// The platform's routing, or null where the phone application selects its devices itself.
std::unique_ptr<PhoneAudioRouting> createPlatformPhoneAudioRouting();

} // namespace vemira
