#include "notify/MailMessage.h"

#include <QLocale>
#include <QUuid>

namespace vemira {

namespace {

constexpr char kCrlf[] = "\r\n";

bool isPlainHeaderText(const QString& text)
{
    for (QChar c : text) {
        const char16_t u = c.unicode();
        if (u < 0x20 || u > 0x7e || u == '=' || u == '?')
            return false;
    }
    return true;
}

QByteArray base64Lines(const QByteArray& data)
{
    const QByteArray encoded = data.toBase64();
    QByteArray lines;
    lines.reserve(encoded.size() + encoded.size() / 76 * 2 + 2);
    for (qsizetype at = 0; at < encoded.size(); at += 76) {
        lines += encoded.mid(at, 76);
        lines += kCrlf;
    }
    return lines;
}

// RFC 5322 date in English, whatever the user's locale.
QByteArray mailDate(const QDateTime& date)
{
    const QLocale c = QLocale::c();
    const int offset = date.offsetFromUtc();
    const int minutes = qAbs(offset) / 60;
    return c.toString(date, QStringLiteral("ddd, d MMM yyyy HH:mm:ss")).toLatin1() + ' ' +
           (offset < 0 ? '-' : '+') + QByteArray::number(minutes / 60).rightJustified(2, '0') +
           QByteArray::number(minutes % 60).rightJustified(2, '0');
}

QByteArray textPart(const QString& body)
{
    QString crlf = body;
    crlf.replace(QLatin1String("\r\n"), QLatin1String("\n"));
    crlf.replace(QLatin1Char('\n'), QLatin1String("\r\n"));
    return QByteArray("Content-Type: text/plain; charset=UTF-8\r\n"
                      "Content-Transfer-Encoding: base64\r\n\r\n") +
           base64Lines(crlf.toUtf8());
}

// A file name parameter in RFC 2231 form, so accents survive.
QByteArray fileNameParameter(const QString& name)
{
    return "filename*=UTF-8''" + name.toUtf8().toPercentEncoding();
}

} // namespace

QByteArray encodeHeaderText(const QString& text)
{
    if (isPlainHeaderText(text))
        return text.toLatin1();
    // Each word carries at most 45 bytes of UTF-8 (60 base64 characters + 12 of framing).
    constexpr qsizetype kMaxBytes = 45;
    QByteArray words;
    QByteArray chunk;
    auto flush = [&] {
        if (chunk.isEmpty())
            return;
        if (!words.isEmpty())
            words += "\r\n ";
        words += "=?UTF-8?B?" + chunk.toBase64() + "?=";
        chunk.clear();
    };
    for (qsizetype i = 0; i < text.size();) {
        const qsizetype width = (text.at(i).isHighSurrogate() && i + 1 < text.size()) ? 2 : 1;
        const QByteArray bytes = text.mid(i, width).toUtf8();
        if (chunk.size() + bytes.size() > kMaxBytes)
            flush();
        chunk += bytes;
        i += width;
    }
    flush();
    return words;
}

QByteArray encodeMail(const MailContent& content)
{
    QByteArray mail;
    auto header = [&mail](QByteArrayView name, const QByteArray& value) {
        mail += name;
        mail += ": ";
        mail += value;
        mail += kCrlf;
    };
    const QByteArray domain = content.from.section(QLatin1Char('@'), 1).toUtf8();
    header("Date", mailDate(content.date.isValid() ? content.date : QDateTime::currentDateTime()));
    header("From", encodeHeaderText(content.fromName) + " <" + content.from.toUtf8() + '>');
    header("To", '<' + content.to.toUtf8() + '>');
    header("Subject", encodeHeaderText(content.subject));
    header("Message-ID",
           '<' + QUuid::createUuid().toByteArray(QUuid::WithoutBraces) + '@' + domain + '>');
    header("MIME-Version", "1.0");
    header("X-Mailer", "Vemira");
    if (content.attachments.isEmpty()) {
        mail += textPart(content.body);
        return mail;
    }
    const QByteArray boundary = "=_vemira_" + QUuid::createUuid().toByteArray(QUuid::Id128);
    header("Content-Type", "multipart/mixed; boundary=\"" + boundary + '"');
    mail += kCrlf;
    mail += "--" + boundary + "\r\n" + textPart(content.body);
    for (const MailAttachment& file : content.attachments) {
        mail += "--" + boundary + "\r\n";
        mail += "Content-Type: " + file.contentType + "\r\n";
        mail += "Content-Transfer-Encoding: base64\r\n";
        mail += "Content-Disposition: attachment; " + fileNameParameter(file.fileName) + "\r\n";
        mail += kCrlf;
        mail += base64Lines(file.data);
    }
    mail += "--" + boundary + "--\r\n";
    return mail;
}

} // namespace vemira
