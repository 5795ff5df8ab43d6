#pragma once

#include "core/AppError.h"

#include <QDate>
#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>
#include <array>

namespace vemira {

// When Vemira answers: how long a call rings first, in and out of opening hours, the days the
// office is closed, the numbers it never takes and whether it takes calls without a number.
// A plain value; every text form here is the one the owner types (Agent page, `vemira rules`).
struct AnsweringRules {
    // The shortest ring lets the owner see who calls; the longest stays under the usual
    // voicemail delay of operators.
    static constexpr int kShortestRing = 3;
    static constexpr int kLongestRing = 60;

    struct Period {
        int start = 0; // minutes since midnight, local time
        int end = 0;   // excluded
        bool operator==(const Period&) const = default;
    };

    int ringOpen = kShortestRing;   // seconds, during opening hours
    int ringClosed = kShortestRing; // seconds, outside them
    // Monday first; no period on any day: every hour is outside opening hours.
    std::array<QList<Period>, 7> hours;
    QList<QDate> closedDays;
    QStringList neverAnswer; // as typed, each one a telephone number
    bool answerHidden = true;

    bool operator==(const AnsweringRules&) const = default;

    // What the owner types, field by field.
    struct Texts {
        QString ringOpen;   // "20"
        QString ringClosed; // "3"
        QString hours;      // "lun-ven 09:00-12:00,14:00-18:00; sam 09:00-12:00"
        QString closedDays; // "2026-12-25,2027-01-01"
        QStringList neverAnswer;
        bool answerHidden = true;
    };
    // Refused with a French sentence that names the field at fault.
    static Result<AnsweringRules> parse(const Texts& texts);
    Texts texts() const;

    // The verdict on a ringing call at local time `when`.
    struct Decision {
        bool answer = true;
        bool open = false;
        double ringSeconds = kShortestRing; // never below kShortestRing
        QString reason; // why it is left ringing: "numéro réservé", "fermé le 25 décembre"…
    };
    // `caller` is the text read around the offer: a number, or none when it holds no number.
    Decision decide(const QString& caller, const QDateTime& when) const;
    bool isOpen(const QDateTime& when) const;
    // One line for the home page: "Ouvert : Vemira répond après 20 s".
    QString inForce(const QDateTime& when) const;
    // The session log's line for a call left ringing.
    static QString leftRingingLine(const QString& caller, const Decision& decision);

    // Digits of a telephone number in international form ("+33 6…", "06…" and "0033 6…" give
    // the same), empty when the text is not one number of 8 to 15 digits.
    static QString numberKey(const QString& text);
};

} // namespace vemira
