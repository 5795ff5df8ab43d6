#pragma once

#include "core/AppError.h"

#include <QString>
#include <optional>

namespace vemira {

// The provider key in a private file of its own: <folder>/openai.key, the key's UTF-8 bytes
// and nothing else. Folder 0700, file 0600, written atomically. Never in a keychain.
// Other secrets (the mail server's password) are kept the same way under another file name.
class LocalKeyStore {
public:
    explicit LocalKeyStore(QString folder, QString fileName = QStringLiteral("openai.key"))
        : m_folder(std::move(folder)), m_fileName(std::move(fileName))
    {}

    QString keyFile() const;
    bool exists() const;
    // No file → no key; unreadable or not UTF-8 → error.
    Result<std::optional<QString>> read() const;
    // The key as it is sent: the file's text without surrounding white space or final newline
    // (a key pasted into the file by hand has them); nothing left → no key. Everything that
    // uses the key reads it through here.
    Result<std::optional<QString>> readKey() const;
    Status save(const QString& key) const;
    Status remove() const; // an absent file is success

    const QString& folder() const { return m_folder; }

private:
    QString m_folder;
    QString m_fileName;
};

// The key store of the standard data folder ("Brelian/Credentials").
class APIKeyStore {
public:
    static LocalKeyStore standard();
    static bool exists() { return standard().exists(); }
    static Result<std::optional<QString>> read() { return standard().read(); }
    static Result<std::optional<QString>> readKey() { return standard().readKey(); }
    static Status save(const QString& key) { return standard().save(key); }
    static Status remove() { return standard().remove(); }
};

// The key typed by the user, trimmed; the error when nothing is left
// ("Saisissez votre clé dans ce champ sécurisé.").
Result<QString> keyFromUserText(const QString& text);

} // namespace vemira
