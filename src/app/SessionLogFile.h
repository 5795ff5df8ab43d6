#pragma once

#include "app/AppModel.h"
#include "records/LogFile.h"

#include <QDate>
#include <QObject>
#include <QTextStream>
#include <algorithm>

namespace vemira {

// Copies every new line of the model's session log (kept newest first, 50 lines, in memory)
// to the log file on disk, with the date the in-memory line leaves out. A failed write is
// told once on standard error; the next lines try again.
class SessionLogFile {
public:
    SessionLogFile(AppModel& model, LogFile file) : m_model(model), m_file(std::move(file))
    {
        m_written = model.logLinesWritten();
        QObject::connect(&model, &AppModel::logChanged, &m_context, [this] { writeNewLines(); });
    }

    const LogFile& file() const { return m_file; }

private:
    void writeNewLines()
    {
        const QStringList log = m_model.log();
        const qint64 written = m_model.logLinesWritten();
        const qsizetype fresh = qsizetype(std::min<qint64>(written - m_written, log.size()));
        const QString day = QDate::currentDate().toString(Qt::ISODate) + u' ';
        for (qsizetype i = fresh - 1; i >= 0; --i) {
            Status failed = m_file.append(day + log.at(i));
            if (failed && !m_failureTold)
                QTextStream(stderr) << failed->message() << Qt::endl;
            m_failureTold = failed.has_value();
        }
        m_written = written;
    }

    AppModel& m_model;
    LogFile m_file;
    qint64 m_written = 0;
    bool m_failureTold = false;
    QObject m_context; // ends the connection with this writer
};

} // namespace vemira
