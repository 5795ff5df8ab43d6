#pragma once

#include "records/CallRecord.h"
#include "records/DesktopServices.h"

#include <QFile>
#include <QStringList>
#include <optional>
#include <sys/stat.h>

namespace vemira::test {

// A record with fixed identity and date, so documents can be compared byte for byte.
inline CallRecord fixedRecord(const QString& idText, double secondsSince2001)
{
    CallRecord record;
    record.id = QUuid::fromString(idText);
    record.date.secondsSinceReference = secondsSince2001;
    record.caller = QStringLiteral("+33 6 12 34 56 78");
    record.kind = QStringLiteral("Appel entrant");
    record.note = QStringLiteral("Rappeler demain");
    record.transcript = {
        TranscriptLine{QUuid::fromString(QStringLiteral("11111111-2222-3333-4444-555555555555")),
                       QStringLiteral("Vemira"),
                       QStringLiteral("Bonjour, que puis-je pour vous ?")},
        TranscriptLine{QUuid::fromString(QStringLiteral("66666666-7777-8888-9999-AAAAAAAAAAAA")),
                       QStringLiteral("Interlocuteur"), QStringLiteral("Une fuite au 3e.")},
    };
    return record;
}

inline QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

inline void writeBytes(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(bytes);
}

inline int mode(const QString& path)
{
    struct stat info {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 0777) : -1;
}

// Records what the store asked of the desktop and answers as told.
class FakeDesktop final : public DesktopServices {
public:
    bool clipboardAccepts = true;
    std::optional<QString> saveAnswer;
    QString clipboard;
    QStringList proposedNames;
    QList<FileType> proposedTypes;
    QStringList revealed;

    bool copyPlainText(const QString& text) override
    {
        if (!clipboardAccepts)
            return false;
        clipboard = text;
        return true;
    }
    std::optional<QString> chooseSaveLocation(const QString& proposedName, FileType type) override
    {
        proposedNames.append(proposedName);
        proposedTypes.append(type);
        return saveAnswer;
    }
    void revealInFileBrowser(const QString& path) override { revealed.append(path); }
};

} // namespace vemira::test
