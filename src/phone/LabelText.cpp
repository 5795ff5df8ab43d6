#include "phone/LabelText.h"

namespace vemira {

QString normalizedLabel(const QString& label)
{
    // Canonical decomposition splits "é" into "e" + a combining accent, which is then
    // dropped. Compatibility forms are left alone, so ’ does not become '.
    const QString decomposed = label.normalized(QString::NormalizationForm_D);
    QString folded;
    folded.reserve(decomposed.size());
    for (const QChar c : decomposed) {
        if (c.category() == QChar::Mark_NonSpacing)
            continue;
        folded.append(c.toLower());
    }
    return folded.trimmed();
}

bool anyLabelIn(const QStringList& labels, const QStringList& table)
{
    for (const QString& label : labels) {
        if (table.contains(normalizedLabel(label)))
            return true;
    }
    return false;
}

namespace phonelabels {

const QStringList& answer()
{
    static const QStringList table{
        QStringLiteral("accepter"),
        QStringLiteral("decrocher"),
        QStringLiteral("repondre"),
        QStringLiteral("answer"),
        QStringLiteral("accept"),
        QStringLiteral("accept call"),
        QStringLiteral("repondre a l\u2019appel"),
        QStringLiteral("repondre a l'appel"),
    };
    return table;
}

const QStringList& hangUp()
{
    static const QStringList table{
        QStringLiteral("raccrocher"),       QStringLiteral("terminer l\u2019appel"),
        QStringLiteral("terminer l'appel"), QStringLiteral("end call"),
        QStringLiteral("hang up"),
    };
    return table;
}

const QStringList& callContext()
{
    static const QStringList table{
        QStringLiteral("telephone"),     QStringLiteral("phone"),
        QStringLiteral("facetime"),      QStringLiteral("appel entrant"),
        QStringLiteral("incoming call"),
    };
    return table;
}

} // namespace phonelabels
} // namespace vemira
