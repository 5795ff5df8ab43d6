#include "records/AnsweringRules.h"

#include "phone/CallPolicy.h"

#include <QLocale>
#include <QRegularExpression>
#include <algorithm>

namespace vemira {

namespace {

const std::array<QString, 7> kDays = {
    QStringLiteral("lun"), QStringLiteral("mar"), QStringLiteral("mer"), QStringLiteral("jeu"),
    QStringLiteral("ven"), QStringLiteral("sam"), QStringLiteral("dim")};

AppError hoursError(const QString& what)
{
    return AppError(QStringLiteral("Horaires d’ouverture : ") + what);
}

// "lun", "lundi", "Lun." → 0; -1 when it names no day.
int dayIndex(const QString& word)
{
    const QString w = word.trimmed().toLower().remove(QLatin1Char('.'));
    for (int i = 0; i < 7; ++i) {
        if (w.size() >= 3 && w.left(3) == kDays.at(i))
            return i;
    }
    return -1;
}

// "09:00", "9h", "9h30" → minutes; -1 when unreadable.
int minutesOf(const QString& text)
{
    static const QRegularExpression time(QStringLiteral("^(\\d{1,2})(?:[:h](\\d{2})?)?$"));
    const QRegularExpressionMatch m = time.match(text.trimmed().toLower());
    if (!m.hasMatch() || (m.captured(2).isEmpty() && !text.contains(QLatin1Char('h'))))
        return -1;
    const int hours = m.captured(1).toInt();
    const int minutes = m.captured(2).isEmpty() ? 0 : m.captured(2).toInt();
    if (minutes > 59 || hours > 24 || (hours == 24 && minutes > 0))
        return -1;
    return hours * 60 + minutes;
}

QString timeText(int minutes)
{
    return QStringLiteral("%1:%2")
        .arg(minutes / 60, 2, 10, QLatin1Char('0'))
        .arg(minutes % 60, 2, 10, QLatin1Char('0'));
}

Result<std::array<QList<AnsweringRules::Period>, 7>> parseHours(const QString& text)
{
    std::array<QList<AnsweringRules::Period>, 7> hours;
    static const QRegularExpression groups(QStringLiteral("[;\\n]"));
    for (const QString& rawGroup : text.split(groups, Qt::SkipEmptyParts)) {
        const QString group = rawGroup.trimmed();
        if (group.isEmpty())
            continue;
        const qsizetype space = group.indexOf(QRegularExpression(QStringLiteral("\\s")));
        if (space < 0)
            return hoursError(QStringLiteral("« %1 » sans plage horaire (par exemple « lun-ven "
                                             "09:00-18:00 »).")
                                  .arg(group));
        QList<int> days;
        for (const QString& item : group.left(space).split(QLatin1Char(','))) {
            const QStringList ends = item.split(QLatin1Char('-'));
            const int first = dayIndex(ends.first());
            const int last = dayIndex(ends.last());
            if (first < 0 || last < 0 || ends.size() > 2)
                return hoursError(
                    QStringLiteral("jour inconnu « %1 » (lun, mar, mer, jeu, ven, sam, dim).")
                        .arg(item));
            for (int d = first;; d = (d + 1) % 7) {
                days.append(d);
                if (d == last)
                    break;
            }
        }
        QString ranges = group.mid(space);
        ranges.remove(QRegularExpression(QStringLiteral("\\s")));
        for (const QString& range : ranges.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
            const QStringList ends = range.split(QLatin1Char('-'));
            const int start = ends.size() == 2 ? minutesOf(ends.first()) : -1;
            const int end = ends.size() == 2 ? minutesOf(ends.last()) : -1;
            if (start < 0 || end < 0)
                return hoursError(
                    QStringLiteral("plage illisible « %1 » (par exemple 09:00-12:00).").arg(range));
            if (end <= start)
                return hoursError(
                    QStringLiteral("la fin précède le début dans « %1 ».").arg(range));
            for (int d : days)
                hours.at(d).append({start, end});
        }
    }
    for (auto& day : hours)
        std::sort(day.begin(), day.end(),
                  [](const AnsweringRules::Period& a, const AnsweringRules::Period& b) {
                      return a.start < b.start;
                  });
    return hours;
}

QString hoursText(const std::array<QList<AnsweringRules::Period>, 7>& hours)
{
    QStringList groups;
    for (int d = 0; d < 7;) {
        int last = d;
        while (last + 1 < 7 && hours.at(last + 1) == hours.at(d))
            ++last;
        if (!hours.at(d).isEmpty()) {
            QStringList ranges;
            for (const AnsweringRules::Period& p : hours.at(d))
                ranges << timeText(p.start) + QLatin1Char('-') + timeText(p.end);
            groups << (d == last ? kDays.at(d) : kDays.at(d) + QLatin1Char('-') + kDays.at(last)) +
                          QLatin1Char(' ') + ranges.join(QLatin1Char(','));
        }
        d = last + 1;
    }
    return groups.join(QStringLiteral("; "));
}

Result<int> ringSeconds(const QString& text, const QString& field)
{
    bool ok = false;
    QString t = text.trimmed();
    if (t.endsWith(QLatin1Char('s')))
        t = t.chopped(1).trimmed();
    const int seconds = t.toInt(&ok);
    if (!ok || seconds < AnsweringRules::kShortestRing || seconds > AnsweringRules::kLongestRing)
        return AppError(QStringLiteral("Laisser sonner (%1) : « %2 » n’est pas une durée de %3 à "
                                       "%4 secondes.")
                            .arg(field, text.trimmed())
                            .arg(AnsweringRules::kShortestRing)
                            .arg(AnsweringRules::kLongestRing));
    return seconds;
}

QString dayOfMonth(const QDate& date)
{
    const QString day = date.day() == 1 ? QStringLiteral("1er") : QString::number(date.day());
    return day + QLatin1Char(' ') +
           QLocale(QLocale::French, QLocale::France).monthName(date.month()).toLower();
}

} // namespace

QString AnsweringRules::numberKey(const QString& text)
{
    const std::optional<QString> number = CallPolicy::phoneNumber({text});
    if (!number)
        return {};
    QString digits;
    for (QChar c : *number) {
        if (c.isDigit())
            digits += QChar(u'0' + c.digitValue());
    }
    if (number->startsWith(QLatin1Char('+')))
        return digits;
    if (digits.startsWith(QLatin1String("00")))
        return digits.mid(2);
    // A national number: the business is in France.
    if (digits.startsWith(QLatin1Char('0')))
        return QStringLiteral("33") + digits.mid(1);
    return digits;
}

Result<AnsweringRules> AnsweringRules::parse(const Texts& texts)
{
    AnsweringRules rules;
    const Result<int> open = ringSeconds(texts.ringOpen, QStringLiteral("ouvert"));
    if (!open)
        return open.error();
    const Result<int> closed = ringSeconds(texts.ringClosed, QStringLiteral("fermé"));
    if (!closed)
        return closed.error();
    rules.ringOpen = open.value();
    rules.ringClosed = closed.value();
    auto hours = parseHours(texts.hours);
    if (!hours)
        return hours.error();
    rules.hours = hours.value();

    static const QRegularExpression separators(QStringLiteral("[,;\\s]+"));
    for (const QString& item : texts.closedDays.split(separators, Qt::SkipEmptyParts)) {
        const QDate date = QDate::fromString(item, Qt::ISODate);
        if (!date.isValid())
            return AppError(
                QStringLiteral("Jours de fermeture : date illisible « %1 » (AAAA-MM-JJ).")
                    .arg(item));
        if (!rules.closedDays.contains(date))
            rules.closedDays.append(date);
    }
    std::sort(rules.closedDays.begin(), rules.closedDays.end());

    for (const QString& raw : texts.neverAnswer) {
        const QString number = raw.trimmed();
        if (number.isEmpty())
            continue;
        if (CallPolicy::phoneNumber({number}) != number)
            return AppError(QStringLiteral("Numéros jamais pris : « %1 » n’est pas un numéro de "
                                           "téléphone (8 à 15 chiffres).")
                                .arg(number));
        rules.neverAnswer.append(number);
    }
    rules.answerHidden = texts.answerHidden;
    return rules;
}

AnsweringRules::Texts AnsweringRules::texts() const
{
    Texts t;
    t.ringOpen = QString::number(ringOpen);
    t.ringClosed = QString::number(ringClosed);
    t.hours = hoursText(hours);
    QStringList days;
    for (const QDate& d : closedDays)
        days << d.toString(Qt::ISODate);
    t.closedDays = days.join(QLatin1Char(','));
    t.neverAnswer = neverAnswer;
    t.answerHidden = answerHidden;
    return t;
}

bool AnsweringRules::isOpen(const QDateTime& when) const
{
    const int minute = when.time().hour() * 60 + when.time().minute();
    const QList<Period>& today = hours.at(when.date().dayOfWeek() - 1);
    return std::any_of(today.begin(), today.end(),
                       [minute](const Period& p) { return minute >= p.start && minute < p.end; });
}

AnsweringRules::Decision AnsweringRules::decide(const QString& caller, const QDateTime& when) const
{
    Decision decision;
    decision.open = isOpen(when) && !closedDays.contains(when.date());
    decision.ringSeconds = std::max(kShortestRing, decision.open ? ringOpen : ringClosed);
    const QString key = numberKey(caller);
    if (!key.isEmpty() && std::any_of(neverAnswer.begin(), neverAnswer.end(),
                                      [&key](const QString& n) { return numberKey(n) == key; }))
        decision.reason = QStringLiteral("numéro réservé");
    else if (key.isEmpty() && !answerHidden)
        decision.reason = QStringLiteral("numéro masqué");
    else if (closedDays.contains(when.date()))
        decision.reason = QStringLiteral("fermé le ") + dayOfMonth(when.date());
    decision.answer = decision.reason.isEmpty();
    return decision;
}

QString AnsweringRules::inForce(const QDateTime& when) const
{
    if (closedDays.contains(when.date()))
        return QStringLiteral("Fermé le ") + dayOfMonth(when.date()) +
               QStringLiteral(" : Vemira laisse sonner");
    const Decision d = decide(QString(), when);
    return (d.open ? QStringLiteral("Ouvert") : QStringLiteral("Fermé")) +
           QStringLiteral(" : Vemira répond après %1 s").arg(d.ringSeconds);
}

QString AnsweringRules::leftRingingLine(const QString& caller, const Decision& decision)
{
    return QStringLiteral("Appel de ") + caller + QStringLiteral(" laissé sonner : ") +
           decision.reason;
}

} // namespace vemira
