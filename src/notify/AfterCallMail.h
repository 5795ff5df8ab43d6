#pragma once

#include "notify/MailMessage.h"
#include "records/CallRecord.h"
#include "records/Settings.h"

#include <QLocale>
#include <QString>

namespace vemira {

// What the owner must see first about a call, wherever it is shown (e-mail, notification).
struct CallHeadline {
    QString caller;   // who called, as the message names them, else the caller label
    QString urgency;  // "Urgent", "Rapide", "Normal", or "Non précisé"
    QString summary;  // one sentence, or empty
    QString callback; // a number to call back, or empty
};
CallHeadline callHeadline(const CallRecord& record);

// "Vemira · <urgence> · <appelant>"
QString afterCallSubject(const CallHeadline& headline);

// The largest recording attached to an e-mail; a longer call is named, not attached.
constexpr qint64 kMaxAttachedRecording = 15 * 1024 * 1024;

// The e-mail sent to the owner once the call's record is saved: the headline, the recording's
// file name and the whole transcript document. The audio itself only when the owner asked
// for it and it is small enough. `recordingPath` is where the recording lies, if anywhere.
MailContent afterCallMail(const CallRecord& record, const Settings::Mail& settings,
                          const QString& recordingPath, const QDateTime& now,
                          const QLocale& locale = QLocale());

// An e-mail telling the owner what went wrong and what to do about it.
MailContent alertMail(const Settings::Mail& settings, const QString& subject, const QString& why,
                      const QString& whatToDo, const QDateTime& now,
                      const QLocale& locale = QLocale());

// The test e-mail of "vemira notify test" and the Connexions page.
MailContent testMail(const Settings::Mail& settings, const QDateTime& now);

} // namespace vemira
