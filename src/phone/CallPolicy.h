#pragma once

#include <QString>
#include <QStringList>
#include <optional>

namespace vemira {

// Who calls, read from a SIP address such as "Jean Test" <sip:0612345678@example.net>.
struct SipCaller {
    QString name;                  // the display name, empty when there is none
    std::optional<QString> number; // the user part when it is a telephone number
};

// The telephone-number rule: a run of 8 to 15 digits, optionally led by "+" or "00",
// with spaces (also no-break and narrow no-break ones), dots, brackets and hyphens inside.
class CallPolicy {
public:
    // The first such number in the texts, in order, exactly as written.
    static std::optional<QString> phoneNumber(const QStringList& texts);
    // The first SIP (or SIPS) address in the texts that gives a display name or a number.
    static std::optional<SipCaller> sipCaller(const QStringList& texts);
};

} // namespace vemira
