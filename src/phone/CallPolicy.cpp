#include "phone/CallPolicy.h"

#include <QRegularExpression>

namespace vemira {

std::optional<QString> CallPolicy::phoneNumber(const QStringList& texts)
{
    // Unicode semantics for \d and \w, as the platform's own regular expressions have.
    static const QRegularExpression pattern(
        QStringLiteral("(?<!\\w)(?:\\+|00)?\\d[\\d .()\\-]{6,}\\d(?!\\w)"),
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
