#pragma once

#include "records/CallRecord.h"

#include <QLocale>
#include <QString>

namespace vemira {

// The plain-text document of a record: the same text in the transcript file, on the
// clipboard and in an exported file. No final line feed.
QString transcriptDocument(const CallRecord& record, const QLocale& locale = QLocale());
// The record's date as the document writes it: the locale's full date and its time with
// seconds, without time zone.
// The message's section of the document ("MESSAGE" and one line per field), without the blank
// line that sets it apart. The document has it after the note only when the record has a message.
QString messageSection(const CallMessage& message);
QString documentDate(const CallRecord& record, const QLocale& locale = QLocale());

QString transcriptFileName(const CallRecord& record); // "Appel-<36-character id>.txt"
QString exportFileName(const CallRecord& record);     // "Conversation-<reference>.txt"

} // namespace vemira
