#pragma once

#include "core/AppError.h"

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

namespace vemira {

// A real softphone for the demonstration (Twinkle or GNOME Calls) and the headless SIP
// caller that rings it over loopback and says a WAV file, both started and stopped by
// scripts/env/softphone.sh in a folder of the demonstration. Main thread.
class DemoSoftphone {
public:
    // `id`: "twinkle" or "gnome-calls". `env`: the demonstration's desktop and audio server.
    DemoSoftphone(QString id, QString folder, const QProcessEnvironment& env);
    ~DemoSoftphone();
    DemoSoftphone(const DemoSoftphone&) = delete;
    DemoSoftphone& operator=(const DemoSoftphone&) = delete;

    static bool known(const QString& id);
    // The softphone's application name on the accessibility bus, and its name for the user.
    QString applicationName() const;
    QString displayName() const;

    Status start();
    // The caller says `wav` and hears the call on `sink`.
    Status startCaller(const QString& wav, const QString& sink);
    Status dial();
    void stop();

    qint64 pid() const { return m_pid; }
    // The devices (sink or source names) the softphone's streams are on now.
    QStringList streamPlaces() const;
    // The caller's log says its call ended.
    bool callerHungUp() const;

private:
    Status script(const QStringList& arguments, const QString& failure);

    QString m_id;
    QString m_folder;
    QString m_script;
    QProcessEnvironment m_env;
    qint64 m_pid = 0;
    bool m_started = false;
};

// A file the demonstration needs from the source or build tree: $<envName> when set, else
// `relative` from the program's folder. Empty when it does not exist.
QString findDemoFile(const char* envName, const QString& relative);

} // namespace vemira
