#pragma once

#include <QString>
#include <QStringList>
#include <optional>

namespace vemira {

// The telephone-number rule: a run of 8 to 15 digits, optionally led by "+" or "00",
// with spaces (also no-break and narrow no-break ones), dots, brackets and hyphens inside.
class CallPolicy {
public:
    // The first such number in the texts, in order, exactly as written.
    static std::optional<QString> phoneNumber(const QStringList& texts);
};

} // namespace vemira
