#include "PulseDaemon.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>

PulseDaemon::~PulseDaemon()
{
    stop();
}

QString PulseDaemon::script(const QString& command) const
{
    QProcess process;
    if (m_bare) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("VEMIRA_SOUND_SERVER"), QStringLiteral("pipewire"));
        env.insert(QStringLiteral("VEMIRA_SOUND_BARE"), QStringLiteral("1"));
        process.setProcessEnvironment(env);
    }
    process.start(QStringLiteral(VEMIRA_PULSE_SCRIPT), {command, m_folder->path()});
    if (!process.waitForFinished(20000) || process.exitCode() != 0)
        return QString::fromLocal8Bit(process.readAllStandardError()) +
               QStringLiteral(" (exit %1)").arg(process.exitCode());
    return QString();
}

QString PulseDaemon::start(const QString& pipewireDropIn)
{
    m_folder = std::make_unique<QTemporaryDir>(QDir::temp().filePath(QStringLiteral("vp-XXXXXX")));
    if (!m_folder->isValid())
        return QStringLiteral("no temporary folder");
    m_bare = !pipewireDropIn.isEmpty();
    if (m_bare) {
        const QString folder =
            m_folder->filePath(QStringLiteral("config/pipewire/pipewire-pulse.conf.d"));
        if (!QDir().mkpath(folder) ||
            !QFile::copy(pipewireDropIn,
                         QDir(folder).filePath(QFileInfo(pipewireDropIn).fileName())))
            return QStringLiteral("cannot copy ") + pipewireDropIn;
    }
    QString failure = script(QStringLiteral("start"));
    if (!failure.isEmpty())
        return failure;
    m_running = true;
    // libpulse reads this at every connection: everything below talks to our daemon.
    qputenv("PULSE_SERVER", "unix:" + m_folder->path().toLocal8Bit() + "/pulse/native");
    return QString();
}

void PulseDaemon::stop()
{
    if (!m_running)
        return;
    script(QStringLiteral("stop"));
    m_running = false;
}

QString PulseDaemon::pactl(const QStringList& arguments) const
{
    QProcess process;
    process.start(QStringLiteral("pactl"), arguments);
    if (!process.waitForFinished(10000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0)
        return QString();
    QString out = QString::fromUtf8(process.readAllStandardOutput()).trimmed();
    return out.isNull() ? QStringLiteral("") : out;
}

int PulseDaemon::loadNullSink(const QString& name, const QString& description, int rate,
                              int channels) const
{
    const QString index =
        pactl({QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
               QStringLiteral("sink_name=") + name, QStringLiteral("rate=%1").arg(rate),
               QStringLiteral("channels=%1").arg(channels),
               QStringLiteral("sink_properties='device.description=\"%1\"'").arg(description)});
    bool ok = false;
    const int value = index.toInt(&ok);
    return ok ? value : -1;
}

int PulseDaemon::loadNullSource(const QString& name) const
{
    QString index = pactl({QStringLiteral("load-module"), QStringLiteral("module-null-source"),
                           QStringLiteral("source_name=") + name});
    if (index.isNull() && isPipeWire())
        index = pactl({QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
                       QStringLiteral("sink_name=") + name,
                       QStringLiteral("media.class=Audio/Source/Virtual")});
    bool ok = false;
    const int value = index.toInt(&ok);
    return ok ? value : -1;
}

bool PulseDaemon::isPipeWire() const
{
    return pactl({QStringLiteral("info")}).contains(QLatin1String("PipeWire"));
}

bool PulseDaemon::unloadModule(int index) const
{
    return !pactl({QStringLiteral("unload-module"), QString::number(index)}).isNull();
}

int PulseDaemon::streamCount() const
{
    const QString inputs =
        pactl({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sink-inputs")});
    const QString outputs =
        pactl({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("source-outputs")});
    return int(inputs.split(QLatin1Char('\n'), Qt::SkipEmptyParts).size() +
               outputs.split(QLatin1Char('\n'), Qt::SkipEmptyParts).size());
}
