#include "audio/VoiceEQSettings.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <algorithm>
#include <cmath>

namespace vemira {

std::array<float, VoiceEQSettings::kBands> VoiceEQSettings::safeGains() const
{
    std::array<float, kBands> safe{};
    for (int i = 0; i < kBands; ++i) {
        if (i >= gains.size() || !std::isfinite(gains[i]))
            safe[std::size_t(i)] = 0.0f;
        else
            safe[std::size_t(i)] = std::clamp(gains[i], -kMaxGain, kMaxGain);
    }
    return safe;
}

std::optional<VoiceEQSettings> VoiceEQSettings::fromJson(const QByteArray& json)
{
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    const QJsonObject object = doc.object();
    const QJsonValue enabled = object.value(QLatin1String("enabled"));
    const QJsonValue gains = object.value(QLatin1String("gains"));
    if (!enabled.isBool() || !gains.isArray())
        return std::nullopt;
    VoiceEQSettings settings;
    settings.enabled = enabled.toBool();
    settings.gains.clear();
    for (const QJsonValue& value : gains.toArray()) {
        if (!value.isDouble())
            return std::nullopt;
        settings.gains.append(float(value.toDouble()));
    }
    return settings;
}

QByteArray VoiceEQSettings::toJson() const
{
    QJsonArray array;
    for (float gain : gains)
        array.append(std::isfinite(gain) ? double(gain) : 0.0);
    QJsonObject object;
    object.insert(QLatin1String("enabled"), enabled);
    object.insert(QLatin1String("gains"), array);
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

VoiceEQSettings VoiceEQSettings::load(const QByteArray& stored)
{
    const auto decoded = fromJson(stored);
    if (!decoded)
        return VoiceEQSettings{};
    const auto safe = decoded->safeGains();
    VoiceEQSettings settings;
    settings.enabled = decoded->enabled;
    settings.gains = QList<float>(safe.begin(), safe.end());
    return settings;
}

VoiceEQSettings VoiceEQSettings::load(const QSettings& settings)
{
    const QVariant value = settings.value(QLatin1String(kPreferenceKey));
    if (!value.isValid())
        return VoiceEQSettings{};
    return load(value.toByteArray());
}

} // namespace vemira
