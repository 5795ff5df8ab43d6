#pragma once

#include <QByteArray>
#include <QList>
#include <array>
#include <optional>

class QSettings;

namespace vemira {

// The owner's nine-band equaliser for the AI voice. Value type; JSON keys "enabled", "gains".
struct VoiceEQSettings {
    static constexpr int kBands = 9;
    static constexpr float kMaxGain = 12.0f;
    static inline const char* const kPreferenceKey = "voiceEQ";

    bool enabled = false;
    QList<float> gains = QList<float>(kBands, 0.0f);

    // Exactly nine gains: missing or non-finite ones are 0, the rest clamped to ±12 dB.
    std::array<float, kBands> safeGains() const;

    // Both keys are required; anything else is a decoding failure.
    static std::optional<VoiceEQSettings> fromJson(const QByteArray& json);
    QByteArray toJson() const;

    // The stored preference, sanitised; the default when missing or undecodable. Never fails.
    static VoiceEQSettings load(const QByteArray& stored);
    static VoiceEQSettings load(const QSettings& settings);

    bool operator==(const VoiceEQSettings&) const = default;
};

} // namespace vemira
