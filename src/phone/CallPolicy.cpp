#include "phone/CallPolicy.h"

#include <QRegularExpression>

namespace vemira {

std::optional<QString> CallPolicy::phoneNumber(const QStringList& texts)
{
    // Unicode semantics for \d and \w, as the platform's own regular expressions have. Phone
    // interfaces group digits with a no-break space (U+00A0) or, in French typography, a narrow
    // one (U+202F): both separate digits like a plain space.
    static const QRegularExpression pattern(
        QStringLiteral("(?<!\\w)(?:\\+|00)?\\d[\\d .()\\-\\x{00A0}\\x{202F}]{6,}\\d(?!\\w)"),
        QRegularExpression::UseUnicodePropertiesOption);
    Q_ASSERT(pattern.isValid());
    for (const QString& text : texts) {
        auto it = pattern.globalMatch(text);
        while (it.hasNext()) {
            const QString matched = it.next().captured(0);
            int digits = 0;
            for (QChar c : matched) {
                if (c.isDigit())
                    ++digits;
            }
            if (digits >= 8 && digits <= 15)
                return matched;
        }
    }
    return std::nullopt;
}

} // namespace vemira

namespace vemira {

std::optional<SipCaller> CallPolicy::sipCaller(const QStringList& texts)
{
    // [display name] <sip:user[;params]@host...>, or a bare sip:user@host.
    static const QRegularExpression address(
        QStringLiteral("(?:^|[\\s<\"])sips?:([^@;>\\s]+)(?:;[^@>\\s]*)?@"),
        QRegularExpression::CaseInsensitiveOption | QRegularExpression::UseUnicodePropertiesOption);
    Q_ASSERT(address.isValid());
    for (const QString& text : texts) {
        const QRegularExpressionMatch match = address.match(text);
        if (!match.hasMatch())
            continue;
        SipCaller caller;
        const QString user = match.captured(1);
        if (const std::optional<QString> number = phoneNumber({user}); number && *number == user)
            caller.number = *number;
        const qsizetype angle = text.lastIndexOf(QLatin1Char('<'), match.capturedStart(1));
        if (angle > 0) {
            QString name = text.left(angle).trimmed();
            if (name.size() >= 2 && name.startsWith(QLatin1Char('"')) &&
                name.endsWith(QLatin1Char('"')))
                name = name.mid(1, name.size() - 2).trimmed();
            caller.name = name;
        }
        if (caller.number || !caller.name.isEmpty())
            return caller;
    }
    return std::nullopt;
}

} // namespace vemira
