#pragma once

#include <QJsonObject>
#include <QString>

namespace vemira::e2e {

// The timing marks one process of the scenario leaves behind, as a JSON object rewritten
// atomically at every change, so a process killed at the end still leaves what it saw.
class MarksFile {
public:
    explicit MarksFile(QString path) : m_path(std::move(path)) {}

    void set(const QString& key, const QJsonValue& value);
    void append(const QString& listKey, const QJsonObject& entry);
    const QJsonObject& data() const { return m_data; }

    static QJsonObject read(const QString& path);

private:
    void save() const;
    QString m_path;
    QJsonObject m_data;
};

} // namespace vemira::e2e
