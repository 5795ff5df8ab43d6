#include "PulseDaemon.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QProcess>
#include <QProcessEnvironment>

using namespace Qt::StringLiterals;

PulseDaemon::~PulseDaemon()
{
    stop();
}

QString PulseDaemon::script(const QString& command) const
{
    QProcess process;
    if (m_bare) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(u"VEMIRA_SOUND_SERVER"_s, u"pipewire"_s);
        env.insert(u"VEMIRA_SOUND_BARE"_s, u"1"_s);
        process.setProcessEnvironment(env);
    }
    process.start(QStringLiteral(VEMIRA_PULSE_SCRIPT), {command, m_folder->path()});
    if (!process.waitForFinished(20000) || process.exitCode() != 0)
        return QString::fromLocal8Bit(process.readAllStandardError()) +
               u" (exit %1)"_s.arg(process.exitCode());
    return QString();
}

QString PulseDaemon::start(const QString& pipewireDropIn)
{
    m_folder = std::make_unique<QTemporaryDir>(QDir::temp().filePath(u"vp-XXXXXX"_s));
    if (!m_folder->isValid())
        return u"no temporary folder"_s;
    m_bare = !pipewireDropIn.isEmpty();
    if (m_bare) {
        const QString folder = m_folder->filePath(u"config/pipewire/pipewire-pulse.conf.d"_s);
        if (!QDir().mkpath(folder) ||
            !QFile::copy(pipewireDropIn,
                         QDir(folder).filePath(QFileInfo(pipewireDropIn).fileName())))
            return u"cannot copy "_s + pipewireDropIn;
    }
    QString failure = script(u"start"_s);
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
    script(u"stop"_s);
    m_running = false;
}

QString PulseDaemon::pactl(const QStringList& arguments) const
{
    QProcess process;
    process.start(u"pactl"_s, arguments);
    if (!process.waitForFinished(10000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0)
        return QString();
    QString out = QString::fromUtf8(process.readAllStandardOutput()).trimmed();
    return out.isNull() ? u""_s : out;
}

int PulseDaemon::loadNullSink(const QString& name, const QString& description, int rate,
                              int channels) const
{
    const QString index =
        pactl({u"load-module"_s, u"module-null-sink"_s, u"sink_name="_s + name,
               u"rate=%1"_s.arg(rate), u"channels=%1"_s.arg(channels),
               u"sink_properties='device.description=\"%1\"'"_s.arg(description)});
    bool ok = false;
    const int value = index.toInt(&ok);
    return ok ? value : -1;
}

int PulseDaemon::loadNullSource(const QString& name) const
{
    QString index = pactl({u"load-module"_s, u"module-null-source"_s, u"source_name="_s + name});
    if (index.isNull() && isPipeWire())
        index = pactl({u"load-module"_s, u"module-null-sink"_s, u"sink_name="_s + name,
                       u"media.class=Audio/Source/Virtual"_s});
    bool ok = false;
    const int value = index.toInt(&ok);
    return ok ? value : -1;
}

bool PulseDaemon::isPipeWire() const
{
    return pactl({u"info"_s}).contains("PipeWire"_L1);
}

bool PulseDaemon::unloadModule(int index) const
{
    return !pactl({u"unload-module"_s, QString::number(index)}).isNull();
}

int PulseDaemon::streamCount() const
{
    const QString inputs = pactl({u"list"_s, u"short"_s, u"sink-inputs"_s});
    const QString outputs = pactl({u"list"_s, u"short"_s, u"source-outputs"_s});
    return int(inputs.split(QLatin1Char('\n'), Qt::SkipEmptyParts).size() +
               outputs.split(QLatin1Char('\n'), Qt::SkipEmptyParts).size());
}

QJsonArray PulseDaemon::list(const QString& what) const
{
    return QJsonDocument::fromJson(pactl({u"-f"_s, u"json"_s, u"list"_s, what}).toUtf8()).array();
}

QJsonObject PulseDaemon::streamOf(const ClientStream& stream) const
{
    for (const QJsonValue s : list(stream.capture() ? u"source-outputs"_s : u"sink-inputs"_s)) {
        const QJsonObject props = s[u"properties"_s].toObject();
        if (props[u"application.process.id"_s].toString().toLongLong() == stream.pid())
            return s.toObject();
    }
    return {};
}

QString PulseDaemon::placeOf(const ClientStream& stream) const
{
    const QJsonObject found = streamOf(stream);
    if (found.isEmpty())
        return QString();
    const int device = found[stream.capture() ? "source"_L1 : "sink"_L1].toInt();
    for (const QJsonValue d : list(stream.capture() ? u"sources"_s : u"sinks"_s)) {
        if (d[u"index"_s].toInt() == device)
            return d[u"name"_s].toString();
    }
    return QString();
}

ClientStream::ClientStream(bool capture, const QString& application, const QString& role)
    : m_capture(capture)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    if (!role.isEmpty())
        env.insert(u"PULSE_PROP"_s, u"media.role="_s + role);
    m_process.setProcessEnvironment(env);
    const QStringList common{u"--raw"_s, u"--client-name="_s + application};
    if (capture) {
        m_process.setStandardOutputFile(QProcess::nullDevice());
        m_process.start(u"pacat"_s, QStringList{u"--record"_s} + common);
    } else {
        m_process.setStandardInputFile(u"/dev/zero"_s);
        m_process.start(u"pacat"_s, QStringList{u"--playback"_s} + common);
    }
    m_process.waitForStarted();
}

void ClientStream::close()
{
    m_process.kill();
    m_process.waitForFinished();
}
