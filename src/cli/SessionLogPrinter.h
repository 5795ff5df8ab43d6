#pragma once

#include "app/AppModel.h"

#include <QObject>
#include <QStringList>
#include <QTextStream>
#include <algorithm>

namespace vemira {

// Prints the model's session log as it grows (the log is kept newest first), plus every
// error the model shows. Shared by the headless commands.
class SessionLogPrinter {
public:
    SessionLogPrinter(AppModel& model, QTextStream& out, QString prefix = {})
        : m_model(model), m_out(out), m_prefix(std::move(prefix))
    {
        m_printed = model.logLinesWritten();
        QObject::connect(&model, &AppModel::logChanged, &m_context, [this] { printNewLines(); });
        QObject::connect(&model, &AppModel::errorChanged, &m_context, [this] {
            if (!m_model.error().isEmpty())
                m_out << m_prefix << QStringLiteral("Erreur : ") << m_model.error() << Qt::endl;
        });
    }

private:
    void printNewLines()
    {
        const QStringList log = m_model.log();
        // Lines are told apart by their rank since start, not their text: the same text
        // twice in a minute is two lines.
        const qint64 written = m_model.logLinesWritten();
        const qsizetype fresh = qsizetype(std::min<qint64>(written - m_printed, log.size()));
        for (qsizetype i = fresh - 1; i >= 0; --i)
            m_out << m_prefix << log.at(i) << Qt::endl;
        m_printed = written;
    }

    AppModel& m_model;
    QTextStream& m_out;
    QString m_prefix;
    qint64 m_printed = 0; // lines of the model's log printed or already there at start
    QObject m_context;    // ends the connections with this printer
};

} // namespace vemira
