#include "records/APIKeyStore.h"

#include "records/DataFolder.h"
#include "records/PrivateFiles.h"

#include <QFile>
#include <QFileInfo>
#include <QStringDecoder>

namespace vemira {

QString LocalKeyStore::keyFile() const
{
    return m_folder + QLatin1Char('/') + m_fileName;
}

bool LocalKeyStore::exists() const
{
    return QFileInfo::exists(keyFile());
}

Result<std::optional<QString>> LocalKeyStore::read() const
{
    const QString path = keyFile();
    if (!QFileInfo::exists(path) && !QFileInfo(path).isSymLink())
        return std::optional<QString>();
    auto bytes = PrivateFiles::read(path);
    if (!bytes)
        return bytes.error();
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(bytes.value());
    if (decoder.hasError()) {
        return AppError(QStringLiteral("Le fichier de clé « ") + path +
                        QStringLiteral(" » n’est pas un texte UTF-8 valide."));
    }
    return std::optional<QString>(std::move(text));
}

Result<std::optional<QString>> LocalKeyStore::readKey() const
{
    Result<std::optional<QString>> stored = read();
    if (!stored || !stored.value())
        return stored;
    const QString key = stored.value()->trimmed();
    if (key.isEmpty())
        return std::optional<QString>();
    return std::optional<QString>(key);
}

Status LocalKeyStore::save(const QString& key) const
{
    // A new folder is created 0700; an existing one is set back to 0700.
    if (Status failed = PrivateFiles::ensureFolder(m_folder, /*enforceMode=*/true))
        return failed;
    return PrivateFiles::write(keyFile(), key.toUtf8());
}

Status LocalKeyStore::remove() const
{
    const QString path = keyFile();
    if (!QFileInfo::exists(path) && !QFileInfo(path).isSymLink())
        return std::nullopt;
    if (!QFile::remove(path)) {
        return AppError(QStringLiteral("Le fichier de clé « ") + path +
                        QStringLiteral(" » n’a pas pu être supprimé."));
    }
    return std::nullopt;
}

LocalKeyStore APIKeyStore::standard()
{
    return LocalKeyStore(DataFolder::standard().credentialsFolder());
}

Result<QString> keyFromUserText(const QString& text)
{
    const QString key = text.trimmed();
    if (key.isEmpty())
        return AppError(QStringLiteral("Saisissez votre clé dans ce champ sécurisé."));
    return key;
}

} // namespace vemira
