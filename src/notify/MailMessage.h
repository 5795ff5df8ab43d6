#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>

namespace vemira {

struct MailAttachment {
    QString fileName;
    QByteArray contentType; // "audio/wav"
    QByteArray data;
};

// One e-mail as the owner reads it. Texts are any Unicode; encoding them for the wire is
// encodeMail's job.
struct MailContent {
    QString fromName; // display name of the sender ("Vemira")
    QString from;     // bare addresses, already checked
    QString to;
    QString subject;
    QString body; // plain text, "\n" line breaks
    QList<MailAttachment> attachments;
    QDateTime date;
};

// The message in Internet mail form: CRLF lines, the subject as UTF-8 encoded words, the
// text in UTF-8 base64 (lines of 76 characters), a multipart/mixed message when there are
// attachments. Never a line a server could take for the end of the data.
QByteArray encodeMail(const MailContent& content);

// "=?UTF-8?B?…?=" words of at most 75 characters, split between whole characters; plain
// ASCII text without specials is returned as it is.
QByteArray encodeHeaderText(const QString& text);

} // namespace vemira
