#pragma once

#include "core/AppError.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

namespace vemira {

// The message a call leaves for the owner, as the model filled it in from what the caller
// said. Every field may be empty: a field the caller did not give is never guessed.
struct CallMessage {
    QString identity; // who called (name, and company when given)
    QString address;  // address and dwelling (building, floor, flat)
    QString problem;
    QString since;    // since when the problem exists, in the caller's words
    QString urgency;  // one of urgencies(), or empty
    QString callback; // a number under the telephone-number rule, or empty
    QString summary;  // one French sentence

    // The three urgency values, most pressing first.
    static QStringList urgencies();
    // 0 for "Urgent", 1 "Rapide", 2 "Normal", 3 when empty or unknown: a sort key.
    int urgencyRank() const;

    bool isEmpty() const;

    // The longest text kept in one field of an answer from the model; longer ones are cut.
    static constexpr qsizetype maxFieldLength = 1000;

    // The history's form: the seven keys, always written, as texts.
    QJsonObject toJson() const;
    // Reading the history's form: every key is optional (absent or null = empty) but must
    // be a text when present; other keys are ignored.
    static Result<CallMessage> fromJson(const QJsonObject& object);

    // Reading the model's answer (the JSON text of its arguments). Anything not a JSON object
    // is refused; inside it, a field of the wrong type is left empty, unknown keys are
    // ignored, texts are trimmed with their line breaks folded and cut at maxFieldLength,
    // an urgency outside the three values is dropped, and the call-back number is kept
    // only when it follows the telephone-number rule.
    static Result<CallMessage> fromAnswer(const QByteArray& json);

    // The same cleaning for a message edited by hand: texts trimmed, urgency and call-back
    // kept only when valid.
    CallMessage cleaned() const;

    bool operator==(const CallMessage&) const = default;
};

} // namespace vemira
