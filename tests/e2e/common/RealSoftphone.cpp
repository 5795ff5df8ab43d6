#include "RealSoftphone.h"

#include <QDir>
#include <QProcess>
#include <QRegularExpression>

namespace vemira::e2e {

RealSoftphone::RealSoftphone(QString scriptsFolder, QString folder, Kind kind, QString language)
    : m_script(QDir(scriptsFolder).filePath(QStringLiteral("softphone.sh"))),
      m_folder(std::move(folder)), m_kind(kind), m_language(std::move(language))
{}

RealSoftphone::~RealSoftphone()
{
    if (m_started) {
        QString ignored;
        script({QStringLiteral("stop"), m_folder}, &ignored);
    }
}

QString RealSoftphone::id() const
{
    return m_kind == Kind::Twinkle ? QStringLiteral("twinkle") : QStringLiteral("gnome-calls");
}

QString RealSoftphone::applicationName() const
{
    return m_kind == Kind::Twinkle ? QStringLiteral("twinkle") : QStringLiteral("org.gnome.Calls");
}

bool RealSoftphone::script(const QStringList& arguments, QString* output)
{
    QProcess process;
    process.setProcessEnvironment(m_env);
    process.start(QStringLiteral("bash"), QStringList{m_script} + arguments);
    const bool ok = process.waitForFinished(60000) &&
                    process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    const QString out = QString::fromUtf8(process.readAllStandardOutput());
    *output = ok ? out : out + QString::fromUtf8(process.readAllStandardError());
    // Applies the "export NAME='value'" lines the script printed.
    static const QRegularExpression line(QStringLiteral("^export ([A-Z_]+)='([^'\\n]*)'$"),
                                         QRegularExpression::MultilineOption);
    auto it = line.globalMatch(out);
    while (it.hasNext()) {
        const auto match = it.next();
        m_env.insert(match.captured(1), match.captured(2));
    }
    return ok;
}

bool RealSoftphone::start(const QProcessEnvironment& desktop, QString* error)
{
    m_env = desktop;
    QString output;
    m_started = true;
    if (!script({QStringLiteral("start"), m_folder, id(), m_language}, &output)) {
        *error = id() + QStringLiteral(": ") + output;
        return false;
    }
    m_phonePid = m_env.value(QStringLiteral("VEMIRA_SOFTPHONE_PID")).toLongLong();
    return true;
}

bool RealSoftphone::startCaller(const QString& wav, const QString& sink, QString* error)
{
    QString output;
    QStringList arguments{QStringLiteral("caller"), m_folder, wav};
    if (!sink.isEmpty())
        arguments.append(sink);
    m_started = true;
    if (!script(arguments, &output)) {
        *error = QStringLiteral("caller: ") + output;
        return false;
    }
    return true;
}

bool RealSoftphone::dial(QString* error)
{
    QString output;
    if (!script({QStringLiteral("dial"), m_folder}, &output)) {
        *error = QStringLiteral("dial: ") + output;
        return false;
    }
    return true;
}

bool RealSoftphone::hangUp(QString* error)
{
    QString output;
    if (!script({QStringLiteral("hangup"), m_folder}, &output)) {
        *error = QStringLiteral("hangup: ") + output;
        return false;
    }
    return true;
}

} // namespace vemira::e2e
