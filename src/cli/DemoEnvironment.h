#pragma once

#include "core/AppError.h"

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <functional>
#include <memory>
#include <vector>

namespace vemira {

// A private desktop for the demonstration, started from nothing and stopped afterwards:
// a PulseAudio daemon with the two virtual call devices, an Xvfb display, a D-Bus session
// and the accessibility bus. Nothing of the user's own session is touched. Main thread.
class DemoEnvironment {
public:
    using Progress = std::function<void(const QString&)>;

    DemoEnvironment(QString folder, Progress progress);
    ~DemoEnvironment();

    // Starts everything in order; on failure what was started is stopped again.
    Status start();
    // Stops what start() started, newest first. Idempotent.
    void stop();

    // The environment children must get (display, buses, audio server).
    QProcessEnvironment environment() const { return m_env; }
    // Applies environment() to this process, before any platform library reads it.
    void applyToThisProcess() const;

    // A child process that stop() ends with the rest (after those started later).
    QProcess* spawn(const QString& program, const QStringList& arguments,
                    const QProcessEnvironment& env);

    static QString callSink() { return QStringLiteral("com.brelian.audio.call"); }
    static QString voiceSink() { return QStringLiteral("com.brelian.audio.voice"); }
    // The desk's own loudspeaker (the daemon's default sink).
    static QString deskSink() { return QStringLiteral("vemira.desk"); }

private:
    Status startAudio();
    Status startDisplay();
    Status startSessionBus();
    Status startAccessibilityBus();

    QString m_folder;
    Progress m_progress;
    QProcessEnvironment m_env;
    QString m_pulseScript;
    bool m_audioStarted = false;
    std::vector<std::unique_ptr<QProcess>> m_children;
};

// A helper program of the demonstration: $<envName> when set, else in the build's src/demo
// folder, else where the package installs it, else on the PATH. Empty when none exists.
QString findDemoProgram(const QString& name, const char* envName);

} // namespace vemira
