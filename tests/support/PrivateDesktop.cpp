#include "PrivateDesktop.h"

#include <QDir>
#include <QProcess>
#include <QRegularExpression>

using namespace Qt::StringLiterals;

namespace vemira::e2e {

namespace {

bool runScript(const QString& script, const QStringList& arguments, const QProcessEnvironment& env,
               QString* output)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(u"bash"_s, QStringList{script} + arguments);
    const bool ok = process.waitForFinished(30000) &&
                    process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    *output = QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError());
    return ok;
}

// Applies the "export NAME=value" lines a script printed.
void applyExports(const QString& text, QProcessEnvironment& env)
{
    static const QRegularExpression line(u"^export ([A-Z_]+)='?([^'\\n]*)'?$"_s,
                                         QRegularExpression::MultilineOption);
    auto it = line.globalMatch(text);
    while (it.hasNext()) {
        const auto match = it.next();
        env.insert(match.captured(1), match.captured(2));
    }
}

} // namespace

PrivateDesktop::PrivateDesktop(QString scriptsFolder, QString folder)
    : m_scripts(std::move(scriptsFolder)), m_folder(std::move(folder)),
      m_env(QProcessEnvironment::systemEnvironment())
{
    for (const char* inherited : {"QT_QPA_PLATFORM", "DISPLAY", "DBUS_SESSION_BUS_ADDRESS",
                                  "PULSE_SERVER", "AT_SPI_BUS_ADDRESS", "XDG_RUNTIME_DIR"})
        m_env.remove(QString::fromLatin1(inherited));
}

PrivateDesktop::~PrivateDesktop()
{
    QString ignored;
    if (m_desktop)
        runScript(QDir(m_scripts).filePath(u"desktop-session.sh"_s),
                  {u"stop"_s, QDir(m_folder).filePath(u"desktop"_s)}, m_env, &ignored);
}

bool PrivateDesktop::start(QString* error)
{
    if (const QString failure = m_audio.start(); !failure.isEmpty()) {
        *error = u"PulseAudio: "_s + failure;
        return false;
    }
    QString output;
    runScript(QDir(m_scripts).filePath(u"pulseaudio.sh"_s), {u"env"_s, m_audio.folder()}, m_env,
              &output);
    applyExports(output, m_env);

    const QString desktopDir = QDir(m_folder).filePath(u"desktop"_s);
    if (!runScript(QDir(m_scripts).filePath(u"desktop-session.sh"_s), {u"start"_s, desktopDir},
                   m_env, &output)) {
        *error = u"desktop: "_s + output;
        return false;
    }
    m_desktop = true;
    const QString runtime = m_env.value(u"XDG_RUNTIME_DIR"_s);
    applyExports(output, m_env);
    // Both parts share the audio daemon's runtime folder (the desktop script keeps it when set).
    m_env.insert(u"XDG_RUNTIME_DIR"_s, runtime);
    return true;
}

} // namespace vemira::e2e
