#include "records/JsonRead.h"

namespace vemira {

void JsonReader::fail(const QString& what)
{
    if (!m_error)
        m_error = AppError(m_where + QStringLiteral(" : ") + what);
}

std::optional<QJsonValue> JsonReader::required(const QString& key)
{
    if (m_error)
        return std::nullopt;
    const auto it = m_object.constFind(key);
    if (it == m_object.constEnd() || it->isNull()) {
        fail(QStringLiteral("clé « %1 » manquante").arg(key));
        return std::nullopt;
    }
    return *it;
}

std::optional<QJsonValue> JsonReader::optional(const QString& key)
{
    if (m_error)
        return std::nullopt;
    const auto it = m_object.constFind(key);
    if (it == m_object.constEnd() || it->isNull())
        return std::nullopt;
    return *it;
}

QString JsonReader::string(const QString& key)
{
    const auto value = required(key);
    if (!value)
        return {};
    if (!value->isString()) {
        fail(QStringLiteral("« %1 » n’est pas un texte").arg(key));
        return {};
    }
    return value->toString();
}

std::optional<QString> JsonReader::optionalString(const QString& key)
{
    const auto value = optional(key);
    if (!value)
        return std::nullopt;
    if (!value->isString()) {
        fail(QStringLiteral("« %1 » n’est pas un texte").arg(key));
        return std::nullopt;
    }
    return value->toString();
}

double JsonReader::number(const QString& key)
{
    const auto value = required(key);
    if (!value)
        return 0;
    if (!value->isDouble()) {
        fail(QStringLiteral("« %1 » n’est pas un nombre").arg(key));
        return 0;
    }
    return value->toDouble();
}

std::optional<double> JsonReader::optionalNumber(const QString& key)
{
    const auto value = optional(key);
    if (!value)
        return std::nullopt;
    if (!value->isDouble()) {
        fail(QStringLiteral("« %1 » n’est pas un nombre").arg(key));
        return std::nullopt;
    }
    return value->toDouble();
}

qint64 JsonReader::integer(const QString& key)
{
    const auto value = required(key);
    if (!value)
        return 0;
    // toInteger() falls back to its argument when the number is not a whole 64-bit value:
    // two different fallbacks tell a real integer from a fraction or an overflow.
    if (!value->isDouble() || value->toInteger(0) != value->toInteger(1)) {
        fail(QStringLiteral("« %1 » n’est pas un entier").arg(key));
        return 0;
    }
    return value->toInteger();
}

QJsonArray JsonReader::array(const QString& key)
{
    const auto value = required(key);
    if (!value)
        return {};
    if (!value->isArray()) {
        fail(QStringLiteral("« %1 » n’est pas une liste").arg(key));
        return {};
    }
    return value->toArray();
}

std::optional<QJsonObject> JsonReader::optionalObject(const QString& key)
{
    const auto value = optional(key);
    if (!value)
        return std::nullopt;
    if (!value->isObject()) {
        fail(QStringLiteral("« %1 » n’est pas un objet").arg(key));
        return std::nullopt;
    }
    return value->toObject();
}

} // namespace vemira
