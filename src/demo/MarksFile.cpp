#include "MarksFile.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>

namespace vemira::e2e {

void MarksFile::set(const QString& key, const QJsonValue& value)
{
    m_data.insert(key, value);
    save();
}

void MarksFile::append(const QString& listKey, const QJsonObject& entry)
{
    QJsonArray list = m_data.value(listKey).toArray();
    list.append(entry);
    m_data.insert(listKey, list);
    save();
}

void MarksFile::save() const
{
    if (m_path.isEmpty())
        return;
    QSaveFile file(m_path);
    if (!file.open(QIODevice::WriteOnly))
        return;
    file.write(QJsonDocument(m_data).toJson());
    file.commit();
}

QJsonObject MarksFile::read(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

} // namespace vemira::e2e
