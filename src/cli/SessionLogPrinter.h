#pragma once

#include "app/AppModel.h"

#include <QObject>
#include <QStringList>
#include <QTextStream>

namespace vemira {

// Prints the model's session log as it grows (the log is kept newest first), plus every
// error the model shows. Shared by the headless commands.
class SessionLogPrinter {
public:
    SessionLogPrinter(AppModel& model, QTextStream& out, QString prefix = {})
        : m_model(model), m_out(out), m_prefix(std::move(prefix))
    {
        m_printed = model.log();
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
        // New lines are those above the newest one already printed.
        qsizetype fresh = log.size();
        if (!m_printed.isEmpty()) {
            const qsizetype at = log.indexOf(m_printed.first());
            if (at >= 0)
                fresh = at;
        }
        for (qsizetype i = fresh - 1; i >= 0; --i)
            m_out << m_prefix << log.at(i) << Qt::endl;
        m_printed = log;
    }

    AppModel& m_model;
    QTextStream& m_out;
    QString m_prefix;
    QStringList m_printed;
    QObject m_context; // ends the connections with this printer
};

} // namespace vemira
