#pragma once

#include <QProcessEnvironment>
#include <QString>

namespace vemira::e2e {

// A real Debian softphone (Twinkle or GNOME Calls) and a headless baresip caller,
// "Jean Test" <sip:0612345678@127.0.0.1>, who dials it over loopback and says a WAV file.
// Both run with a private HOME in `folder` through scripts/env/softphone.sh, on a desktop
// and an audio server given by `desktop` (PrivateDesktop::environment()). Run inside a
// private network namespace (enterPrivateNetwork): the SIP ports are fixed. Stopped on
// destruction. Main thread.
class RealSoftphone {
public:
    enum class Kind { Twinkle, GnomeCalls };

    RealSoftphone(QString scriptsFolder, QString folder, Kind kind, QString language);
    ~RealSoftphone();
    RealSoftphone(const RealSoftphone&) = delete;
    RealSoftphone& operator=(const RealSoftphone&) = delete;

    // Starts the softphone; true once it listens for calls.
    bool start(const QProcessEnvironment& desktop, QString* error);
    // Starts the caller saying `wav` and hearing the call on `sink` (empty: default sink).
    bool startCaller(const QString& wav, const QString& sink, QString* error);
    // The caller dials the softphone / hangs up.
    bool dial(QString* error);
    bool hangUp(QString* error);

    // The softphone's name on the accessibility bus.
    QString applicationName() const;
    // "twinkle" or "gnome-calls", as the script and `vemira demo --phone` name them.
    QString id() const;
    qint64 phonePid() const { return m_phonePid; }
    QString folder() const { return m_folder; }
    // The desktop's environment plus VEMIRA_SOFTPHONE_* (see softphone.sh).
    QProcessEnvironment environment() const { return m_env; }

private:
    bool script(const QStringList& arguments, QString* output);

    QString m_script;
    QString m_folder;
    Kind m_kind;
    QString m_language;
    QProcessEnvironment m_env;
    qint64 m_phonePid = 0;
    bool m_started = false;
};

} // namespace vemira::e2e
