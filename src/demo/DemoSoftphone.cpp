#include "DemoSoftphone.h"

#ifdef Q_OS_LINUX

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>

namespace vemira {

QString findDemoFile(const char* envName, const QStringList& relatives)
{
    const QString fromEnv = qEnvironmentVariable(envName);
    if (!fromEnv.isEmpty())
        return QFileInfo::exists(fromEnv) ? QFileInfo(fromEnv).absoluteFilePath() : QString();
    for (const QString& relative : relatives) {
        const QString path = QDir(QCoreApplication::applicationDirPath()).filePath(relative);
        if (QFileInfo::exists(path))
            return QFileInfo(path).absoluteFilePath();
    }
    return QString();
}

DemoSoftphone::DemoSoftphone(QString id, QString folder, const QProcessEnvironment& env,
                             QString language, QString script)
    : m_id(std::move(id)), m_folder(std::move(folder)), m_language(std::move(language)),
      m_script(std::move(script)), m_env(env)
{
    // <source>/build-x/src/cli/vemira → <source>/scripts/env/softphone.sh;
    // /usr/bin/vemira → /usr/libexec/vemira/softphone.sh
    if (m_script.isEmpty())
        m_script = findDemoFile("VEMIRA_SOFTPHONE_SCRIPT",
                                {QStringLiteral("../../../scripts/env/softphone.sh"),
                                 QStringLiteral("../libexec/vemira/softphone.sh")});
}

DemoSoftphone::~DemoSoftphone()
{
    stop();
}

bool DemoSoftphone::known(const QString& id)
{
    return id == QLatin1String("twinkle") || id == QLatin1String("gnome-calls");
}

QString DemoSoftphone::applicationName() const
{
    return m_id == QLatin1String("twinkle") ? QStringLiteral("twinkle")
                                            : QStringLiteral("org.gnome.Calls");
}

QString DemoSoftphone::displayName() const
{
    return m_id == QLatin1String("twinkle") ? QStringLiteral("Twinkle")
                                            : QStringLiteral("GNOME Appels");
}

Status DemoSoftphone::script(const QStringList& arguments, const QString& failure)
{
    if (m_script.isEmpty())
        return AppError(QStringLiteral("Script des softphones introuvable : scripts/env/"
                                       "softphone.sh (VEMIRA_SOFTPHONE_SCRIPT)."));
    QProcess process;
    process.setProcessEnvironment(m_env);
    process.start(QStringLiteral("bash"), QStringList{m_script} + arguments);
    const bool ok = process.waitForFinished(60000) &&
                    process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    const QString out = QString::fromUtf8(process.readAllStandardOutput());
    if (!ok)
        return AppError(failure + QLatin1Char(' ') +
                        QString::fromUtf8(process.readAllStandardError()).trimmed());
    static const QRegularExpression line(QStringLiteral("^export ([A-Z_]+)='([^'\\n]*)'$"),
                                         QRegularExpression::MultilineOption);
    for (auto it = line.globalMatch(out); it.hasNext();) {
        const auto match = it.next();
        if (match.captured(1) == QLatin1String("VEMIRA_SOFTPHONE_PID"))
            m_pid = match.captured(2).toLongLong();
    }
    return std::nullopt;
}

Status DemoSoftphone::start()
{
    m_started = true;
    return script({QStringLiteral("start"), m_folder, m_id, m_language},
                  QStringLiteral("%1 n’a pas démarré.").arg(displayName()));
}

Status DemoSoftphone::startCaller(const QString& wav, const QString& sink)
{
    m_started = true;
    QStringList arguments{QStringLiteral("caller"), m_folder, wav};
    if (!sink.isEmpty())
        arguments.append(sink);
    return script(arguments, QStringLiteral("L’appelant SIP (baresip) n’a pas démarré."));
}

Status DemoSoftphone::dial()
{
    return script({QStringLiteral("dial"), m_folder},
                  QStringLiteral("L’appelant SIP n’a pas pu composer le numéro."));
}

Status DemoSoftphone::hangUp()
{
    return script({QStringLiteral("hangup"), m_folder},
                  QStringLiteral("L’appelant SIP n’a pas pu raccrocher."));
}

void DemoSoftphone::stop()
{
    if (!m_started)
        return;
    m_started = false;
    script({QStringLiteral("stop"), m_folder}, {});
}

namespace {

QByteArray runPactl(const QProcessEnvironment& env, const QStringList& arguments)
{
    QProcess pactl;
    pactl.setProcessEnvironment(env);
    pactl.start(QStringLiteral("pactl"), arguments);
    pactl.waitForFinished(5000);
    return pactl.readAllStandardOutput();
}

} // namespace

QString DemoSoftphone::placeOfItsNextStream() const
{
    if (m_streamApplication.isEmpty() && m_streamRole.isEmpty())
        return {};
    QProcessEnvironment env = m_env;
    if (!m_streamRole.isEmpty())
        env.insert(QStringLiteral("PULSE_PROP"), QStringLiteral("media.role=") + m_streamRole);
    QProcess stream;
    stream.setProcessEnvironment(env);
    stream.setStandardInputFile(QStringLiteral("/dev/zero"));
    stream.start(QStringLiteral("pacat"), {QStringLiteral("--playback"), QStringLiteral("--raw"),
                                           QStringLiteral("--volume=0"),
                                           QStringLiteral("--client-name=") + m_streamApplication});
    if (!stream.waitForStarted(5000))
        return {};
    QString place;
    const QDeadlineTimer deadline(5000);
    while (place.isEmpty() && !deadline.hasExpired() && stream.state() == QProcess::Running) {
        place = placesOf(stream.processId(), false).value(0);
        if (place.isEmpty())
            stream.waitForFinished(50);
    }
    stream.kill();
    stream.waitForFinished(5000);
    return place;
}

QStringList DemoSoftphone::streamPlaces() const
{
    return placesOf(m_pid, false) + placesOf(m_pid, true);
}

QStringList DemoSoftphone::placesOf(qint64 pid, bool capture) const
{
    const auto run = [this](const QStringList& arguments) { return runPactl(m_env, arguments); };
    QStringList places;
    {
        // Index → name from the short list (its JSON form mangles non-ASCII descriptions).
        QHash<int, QString> names;
        const QByteArray devices =
            run({QStringLiteral("list"), QStringLiteral("short"),
                 capture ? QStringLiteral("sources") : QStringLiteral("sinks")});
        for (const QByteArray& row : devices.split('\n')) {
            const QList<QByteArray> fields = row.split('\t');
            if (fields.size() >= 2)
                names.insert(fields.at(0).toInt(), QString::fromUtf8(fields.at(1)));
        }
        const QJsonArray streams =
            QJsonDocument::fromJson(
                run({QStringLiteral("-f"), QStringLiteral("json"), QStringLiteral("list"),
                     capture ? QStringLiteral("source-outputs") : QStringLiteral("sink-inputs")}))
                .array();
        for (const QJsonValue stream : streams) {
            const QJsonObject properties = stream[QStringLiteral("properties")].toObject();
            if (properties[QStringLiteral("application.process.id")].toString().toLongLong() != pid)
                continue;
            if (pid == m_pid && !capture && m_streamApplication.isEmpty()) {
                m_streamApplication = properties[QStringLiteral("application.name")].toString();
                m_streamRole = properties[QStringLiteral("media.role")].toString();
            }
            places << names.value(
                stream[capture ? QStringLiteral("source") : QStringLiteral("sink")].toInt());
        }
    }
    return places;
}

bool DemoSoftphone::callerLogShows(const QByteArray& text) const
{
    QFile log(QDir(m_folder).filePath(QStringLiteral("caller.log")));
    return log.open(QIODevice::ReadOnly) && log.readAll().contains(text);
}

} // namespace vemira

#endif // Q_OS_LINUX
