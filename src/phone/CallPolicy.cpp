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
