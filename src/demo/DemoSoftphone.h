#pragma once

#include "core/AppError.h"

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

namespace vemira {

// A real softphone (Twinkle or GNOME Calls) and the headless SIP caller, "Jean Test"
// <sip:0612345678@127.0.0.1>, who rings it over loopback and says a WAV file. Both are started
// and stopped by scripts/env/softphone.sh with a private HOME in `folder`, on the desktop and
// audio server of `env`, inside a network of their own (PrivateNetwork.h): the SIP ports are
// fixed. Used by the demonstration and by the tests that drive real softphones. Stopped on
// destruction. Main thread.
class DemoSoftphone {
public:
    // `id`: "twinkle" or "gnome-calls"; `language`: "fr" or "en". `script`: softphone.sh,
    // empty to look for it beside the program (findDemoFile).
    DemoSoftphone(QString id, QString folder, const QProcessEnvironment& env,
                  QString language = QStringLiteral("fr"), QString script = {});
    ~DemoSoftphone();
    DemoSoftphone(const DemoSoftphone&) = delete;
    DemoSoftphone& operator=(const DemoSoftphone&) = delete;

    static bool known(const QString& id);
    QString id() const { return m_id; }
    QString folder() const { return m_folder; }
    // The softphone's application name on the accessibility bus, and its name for the user.
    QString applicationName() const;
    QString displayName() const;

    Status start();
    // The caller says `wav` and hears the call on `sink` (empty: the default sink).
    Status startCaller(const QString& wav, const QString& sink);
    // The caller dials the softphone / hangs up.
    Status dial();
    Status hangUp();
    void stop();

    qint64 pid() const { return m_pid; }
    // The devices (sink or source names) the softphone's streams are on now. The first of its
    // playback streams seen also gives its application name and role (see below).
    QStringList streamPlaces() const;
    // Where a new playback stream with the name and role the softphone's own streams carried
    // lands: where the server sends its next stream, a ring included (the server remembers by
    // role or name). Empty when none was seen yet or the stream found no device.
    QString placeOfItsNextStream() const;
    // The caller's log holds `text` ("Call established", "terminated"…).
    bool callerLogShows(const QByteArray& text) const;
    // The caller's log says its call ended.
    bool callerHungUp() const { return callerLogShows("terminated (duration"); }

private:
    QStringList placesOf(qint64 pid, bool capture) const;
    Status script(const QStringList& arguments, const QString& failure);

    QString m_id;
    QString m_folder;
    QString m_language;
    QString m_script;
    QProcessEnvironment m_env;
    qint64 m_pid = 0;
    bool m_started = false;
    mutable QString m_streamApplication;
    mutable QString m_streamRole;
};

// A file the demonstration needs: $<envName> when set, else the first of `relatives` (from the
// program's folder: the source and build trees, then the installed layout) that exists.
// Empty when none does.
QString findDemoFile(const char* envName, const QStringList& relatives);

} // namespace vemira
