#pragma once

#include "core/AppError.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <optional>

namespace vemira {

// Strict reading of one JSON object: the first missing key or wrong type is remembered and
// every later read returns an empty value, so decoders read straight through and check
// failed() once. Absent and null are the same for the optional reads.
class JsonReader {
public:
    JsonReader(const QJsonObject& object, QString where)
        : m_object(object), m_where(std::move(where))
    {}

    QString string(const QString& key);
    std::optional<QString> optionalString(const QString& key);
    double number(const QString& key);
    std::optional<double> optionalNumber(const QString& key);
    qint64 integer(const QString& key);
    QJsonArray array(const QString& key);
    std::optional<QJsonObject> optionalObject(const QString& key);

    bool failed() const { return m_error.has_value(); }
    AppError error() const { return m_error.value_or(AppError(QString())); }
    void fail(const QString& what);

private:
    std::optional<QJsonValue> required(const QString& key);
    std::optional<QJsonValue> optional(const QString& key);
    QJsonObject m_object;
    QString m_where;
    std::optional<AppError> m_error;
};

} // namespace vemira
