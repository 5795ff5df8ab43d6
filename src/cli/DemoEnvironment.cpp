#include "DemoEnvironment.h"

// The demonstration's private desktop is made of Linux parts (PulseAudio, Xvfb, AT-SPI).
#ifdef Q_OS_LINUX

#include "demo/DemoSoftphone.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusReply>
#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>
#include <QThread>
#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

namespace vemira {

namespace {

QString missingProgram(const QString& program)
{
    return QStringLiteral(
               "Programme introuvable : %1. Installez les paquets de scripts/apt-packages.txt "
               "(bash scripts/install-deps.sh).")
        .arg(program);
}

// Runs a short command to completion; its output on failure.
Status runToEnd(const QString& program, const QStringList& arguments,
                const QProcessEnvironment& env, const QString& failure)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        return AppError(failure + QStringLiteral(" ") +
                        QString::fromLocal8Bit(process.readAll()).trimmed());
    }
    return std::nullopt;
}

} // namespace

QString findDemoProgram(const QString& name, const char* envName)
{
    const QString fromEnv = qEnvironmentVariable(envName);
    if (!fromEnv.isEmpty())
        return QFileInfo(fromEnv).isExecutable() ? fromEnv : QString();
    // <build>/src/cli/vemira → <build>/src/demo/<name>; /usr/bin/vemira →
    // /usr/libexec/vemira/<name>
    for (const QString& folder :
         {QStringLiteral("../demo/"), QStringLiteral("../libexec/vemira/")}) {
        const QString beside = QDir(QCoreApplication::applicationDirPath()).filePath(folder + name);
        if (QFileInfo(beside).isExecutable())
            return QFileInfo(beside).canonicalFilePath();
    }
    return QStandardPaths::findExecutable(name);
}

DemoEnvironment::DemoEnvironment(QString folder, Progress progress)
    : m_folder(std::move(folder)), m_progress(std::move(progress)),
      m_env(QProcessEnvironment::systemEnvironment())
{}

DemoEnvironment::~DemoEnvironment()
{
    stop();
}

Status DemoEnvironment::start()
{
    QDir().mkpath(m_folder);
    QFile::setPermissions(m_folder,
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    for (const auto& step :
         {&DemoEnvironment::startAudio, &DemoEnvironment::startDisplay,
          &DemoEnvironment::startSessionBus, &DemoEnvironment::startAccessibilityBus}) {
        if (Status failure = (this->*step)()) {
            stop();
            return failure;
        }
    }
    return std::nullopt;
}

Status DemoEnvironment::startAudio()
{
    // <source>/build-x/src/cli/vemira → <source>/scripts/env/pulseaudio.sh;
    // /usr/bin/vemira → /usr/libexec/vemira/pulseaudio.sh
    m_pulseScript =
        findDemoFile("VEMIRA_PULSE_SCRIPT", {QStringLiteral("../../../scripts/env/pulseaudio.sh"),
                                             QStringLiteral("../libexec/vemira/pulseaudio.sh")});
    if (m_pulseScript.isEmpty())
        return AppError(QStringLiteral("Script audio introuvable : pulseaudio.sh "
                                       "(VEMIRA_PULSE_SCRIPT)."));
    const bool pipewire =
        m_env.value(QStringLiteral("VEMIRA_SOUND_SERVER")) == QLatin1String("pipewire");
    const QStringList programs =
        pipewire ? QStringList{QStringLiteral("pipewire"), QStringLiteral("wireplumber"),
                               QStringLiteral("pipewire-pulse")}
                 : QStringList{QStringLiteral("pulseaudio")};
    for (const QString& program : programs) {
        if (QStandardPaths::findExecutable(program).isEmpty())
            return AppError(missingProgram(program));
    }
    const QString server = pipewire ? QStringLiteral("PipeWire (WirePlumber, pipewire-pulse)")
                                    : QStringLiteral("PulseAudio");

    const QString dir = QDir(m_folder).filePath(QStringLiteral("pulse"));
    m_progress(
        QStringLiteral("Démarrage de %1 avec les appareils virtuels « Brelian »…").arg(server));
    if (Status failure =
            runToEnd(QStringLiteral("bash"), {m_pulseScript, QStringLiteral("start"), dir}, m_env,
                     QStringLiteral("%1 n’a pas démarré.").arg(server)))
        return failure;
    m_audioStarted = true;
    m_env.insert(QStringLiteral("XDG_RUNTIME_DIR"), dir);
    m_env.insert(QStringLiteral("PULSE_SERVER"),
                 QStringLiteral("unix:") + dir + QStringLiteral("/pulse/native"));
    m_env.remove(QStringLiteral("PULSE_COOKIE"));
    return std::nullopt;
}

Status DemoEnvironment::startDisplay()
{
    const QString xvfb = QStandardPaths::findExecutable(QStringLiteral("Xvfb"));
    if (xvfb.isEmpty())
        return AppError(missingProgram(QStringLiteral("Xvfb")));
    m_progress(QStringLiteral("Démarrage d’un écran virtuel (Xvfb)…"));
    // -displayfd: the server picks a free display itself and tells us which.
    QProcess* x =
        spawn(xvfb,
              {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
               QStringLiteral("0"), QStringLiteral("1280x800x24"), QStringLiteral("-nolisten"),
               // -noreset keeps the root window's properties (the accessibility bus address)
               // when the last client leaves.
               QStringLiteral("tcp"), QStringLiteral("-noreset")},
              m_env);
    QByteArray number;
    const QDeadlineTimer deadline(10000);
    while (!number.contains('\n') && !deadline.hasExpired() && x->state() != QProcess::NotRunning) {
        x->waitForReadyRead(100);
        number += x->readAllStandardOutput();
    }
    if (!number.contains('\n'))
        return AppError(QStringLiteral("L’écran virtuel Xvfb n’a pas démarré."));
    m_env.insert(QStringLiteral("DISPLAY"),
                 QStringLiteral(":") + QString::fromLatin1(number.trimmed()));
    // Whatever platform the caller's own session picked (offscreen in a terminal without a
    // screen, Wayland on a desktop), a program started here shows its windows on this display:
    // a Qt softphone left offscreen never reaches the accessibility bus.
    m_env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    m_env.insert(QStringLiteral("GDK_BACKEND"), QStringLiteral("x11"));
    m_env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    return std::nullopt;
}

Status DemoEnvironment::startSessionBus()
{
    const QString daemon = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
    if (daemon.isEmpty())
        return AppError(missingProgram(QStringLiteral("dbus-daemon")));
    m_progress(QStringLiteral("Démarrage d’un bus de session D-Bus…"));
    const QString address =
        QStringLiteral("unix:path=") + QDir(m_folder).filePath(QStringLiteral("bus"));
    QProcess* bus =
        spawn(daemon,
              {QStringLiteral("--session"), QStringLiteral("--nofork"),
               QStringLiteral("--address=") + address, QStringLiteral("--print-address=1")},
              m_env);
    QByteArray printed;
    const QDeadlineTimer deadline(10000);
    while (!printed.contains('\n') && !deadline.hasExpired() &&
           bus->state() != QProcess::NotRunning) {
        bus->waitForReadyRead(100);
        printed += bus->readAllStandardOutput();
    }
    if (!printed.contains('\n'))
        return AppError(QStringLiteral("Le bus de session D-Bus n’a pas démarré."));
    m_env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                 QString::fromLatin1(printed.trimmed()));
    return std::nullopt;
}

Status DemoEnvironment::startAccessibilityBus()
{
    QString launcher = QStringLiteral("/usr/libexec/at-spi-bus-launcher");
    if (!QFileInfo(launcher).isExecutable())
        launcher = QStandardPaths::findExecutable(QStringLiteral("at-spi-bus-launcher"));
    if (launcher.isEmpty())
        return AppError(missingProgram(QStringLiteral("at-spi-bus-launcher (at-spi2-core)")));
    m_progress(QStringLiteral("Démarrage du bus d’accessibilité (AT-SPI)…"));
    spawn(launcher, {QStringLiteral("--launch-immediately")}, m_env);

    // Ready once the launcher answers with the accessibility bus's address.
    const QString name = QStringLiteral("vemira-demo-bus");
    bool ready = false;
    QString busAddress;
    {
        QDBusConnection bus = QDBusConnection::connectToBus(
            m_env.value(QStringLiteral("DBUS_SESSION_BUS_ADDRESS")), name);
        const QDeadlineTimer deadline(10000);
        while (!ready && !deadline.hasExpired()) {
            QDBusInterface a11y(QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
                                QStringLiteral("org.a11y.Bus"), bus);
            const QDBusReply<QString> address = a11y.call(QStringLiteral("GetAddress"));
            ready = address.isValid() && !address.value().isEmpty();
            if (ready)
                busAddress = address.value();
            if (!ready)
                QThread::msleep(100);
        }
        if (ready) {
            // Applications started from now on expose their interface without being asked.
            QDBusInterface status(QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
                                  QStringLiteral("org.freedesktop.DBus.Properties"), bus);
            status.call(QStringLiteral("Set"), QStringLiteral("org.a11y.Status"),
                        QStringLiteral("IsEnabled"), QVariant::fromValue(QDBusVariant(true)));
            // Qt 5 applications (real softphones) look for the bus on the root window.
            const QString xprop = QStandardPaths::findExecutable(QStringLiteral("xprop"));
            if (!xprop.isEmpty())
                runToEnd(xprop,
                         {QStringLiteral("-root"), QStringLiteral("-f"),
                          QStringLiteral("AT_SPI_BUS"), QStringLiteral("8s"),
                          QStringLiteral("-set"), QStringLiteral("AT_SPI_BUS"), busAddress},
                         m_env, {});
        }
    }
    QDBusConnection::disconnectFromBus(name);
    if (!ready)
        return AppError(QStringLiteral("Le bus d’accessibilité AT-SPI ne répond pas."));
    return std::nullopt;
}

QProcess* DemoEnvironment::spawn(const QString& program, const QStringList& arguments,
                                 const QProcessEnvironment& env)
{
    auto process = std::make_unique<QProcess>();
    process->setProcessEnvironment(env);
    process->setChildProcessModifier([] {
        // Out of the terminal's process group, so Ctrl-C reaches only the demonstration, which
        // then stops everything in order; and ended with it should it die.
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    });
    process->setProcessChannelMode(QProcess::SeparateChannels);
    process->setStandardErrorFile(
        QDir(m_folder).filePath(QFileInfo(program).fileName() + QStringLiteral(".log")),
        QIODevice::Append);
    process->start(program, arguments);
    m_children.push_back(std::move(process));
    return m_children.back().get();
}

void DemoEnvironment::applyToThisProcess() const
{
    for (const QString& key :
         {QStringLiteral("XDG_RUNTIME_DIR"), QStringLiteral("PULSE_SERVER"),
          QStringLiteral("DISPLAY"), QStringLiteral("DBUS_SESSION_BUS_ADDRESS")}) {
        if (m_env.contains(key))
            qputenv(key.toLatin1().constData(), m_env.value(key).toLocal8Bit());
    }
    qunsetenv("PULSE_COOKIE");
    qunsetenv("AT_SPI_BUS_ADDRESS");
}

void DemoEnvironment::stop()
{
    while (!m_children.empty()) {
        std::unique_ptr<QProcess> child = std::move(m_children.back());
        m_children.pop_back();
        if (child->state() == QProcess::NotRunning)
            continue;
        child->terminate();
        if (!child->waitForFinished(3000)) {
            child->kill();
            child->waitForFinished(1000);
        }
    }
    if (m_audioStarted) {
        m_audioStarted = false;
        runToEnd(QStringLiteral("bash"),
                 {m_pulseScript, QStringLiteral("stop"),
                  QDir(m_folder).filePath(QStringLiteral("pulse"))},
                 m_env, {});
    }
}

} // namespace vemira

#endif // Q_OS_LINUX
