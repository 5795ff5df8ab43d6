#pragma once

#include <QHashFunctions>
#include <QList>
#include <QString>
#include <cstdint>
#include <functional>
#include <optional>

namespace vemira {

// Four-character codes as the audio hardware layer writes them: big-endian, first character
// in the high byte ("dIn " == 0x64496E20).
constexpr std::uint32_t fourCharCode(const char (&code)[5])
{
    return (std::uint32_t(std::uint8_t(code[0])) << 24) |
           (std::uint32_t(std::uint8_t(code[1])) << 16) |
           (std::uint32_t(std::uint8_t(code[2])) << 8) | std::uint32_t(std::uint8_t(code[3]));
}

// Selectors of the two system defaults that a route may change.
namespace AudioSelector {
inline constexpr std::uint32_t defaultInput = fourCharCode("dIn ");
inline constexpr std::uint32_t defaultOutput = fourCharCode("dOut");
} // namespace AudioSelector

// Transport types of a device ("tran"). Only built-in matters to us (the Mac's own microphone
// and speakers for a test conversation); backends map their own notion onto these codes.
namespace AudioTransport {
inline constexpr std::uint32_t builtIn = fourCharCode("bltn");
inline constexpr std::uint32_t virtualDevice = fourCharCode("virt");
inline constexpr std::uint32_t usb = fourCharCode("usb ");
inline constexpr std::uint32_t bluetooth = fourCharCode("blue");
inline constexpr std::uint32_t unknown = 0;
} // namespace AudioTransport

// One audio device as the hardware layer lists it. Value type, compared over all fields.
struct SoundDevice {
    std::uint32_t id = 0;
    QString name; // empty when unreadable
    QString uid;  // persistent unique id; empty when unreadable
    bool input = false;
    bool output = false;

    bool operator==(const SoundDevice&) const = default;
};

inline size_t qHash(const SoundDevice& d, size_t seed = 0) noexcept
{
    return qHashMulti(seed, d.id, d.name, d.uid, d.input, d.output);
}

// The companion driver's two virtual devices, recognised by their whole uid only.
namespace BrelianDevices {

// Shared with the driver: its devices' uids are this prefix followed by the suffix below.
inline const QString uidPrefix = QStringLiteral("com.brelian.");
inline const QString callSuffix = QStringLiteral("audio.call");
inline const QString voiceSuffix = QStringLiteral("audio.voice");

// The phone application plays the caller into the call device; we capture from it.
QString callUID();
// We play the AI voice into the voice device; the phone application uses it as its microphone.
QString voiceUID();

// Display names, as the phone application's menus show them.
inline const QString callName = QStringLiteral("Brelian — Appel vers IA");
inline const QString voiceName = QStringLiteral("Brelian — IA vers appel");

struct Pair {
    SoundDevice call;
    SoundDevice voice;
    bool operator==(const Pair&) const = default;
};

// First duplex device with each uid; none when either is missing or both are one device.
std::optional<Pair> pair(const QList<SoundDevice>& devices);

} // namespace BrelianDevices

} // namespace vemira

template <> struct std::hash<vemira::SoundDevice> {
    size_t operator()(const vemira::SoundDevice& d) const noexcept { return vemira::qHash(d); }
};
