#pragma once

#include "support/PulseDaemon.h"

#include <QProcessEnvironment>
#include <QString>

namespace vemira::e2e {

// The project's own scripts, run for a test: a private sound server with the virtual call
// devices (PulseDaemon) and a private desktop (Xvfb, session bus, accessibility bus) in
// `folder`. Stopped again on destruction.
class PrivateDesktop {
public:
    PrivateDesktop(QString scriptsFolder, QString folder);
    ~PrivateDesktop();
    PrivateDesktop(const PrivateDesktop&) = delete;
    PrivateDesktop& operator=(const PrivateDesktop&) = delete;

    // False with `error` set when a part did not start (what did is stopped by the destructor).
    bool start(QString* error);
    // The system environment plus what reaches the private audio server and desktop.
    QProcessEnvironment environment() const { return m_env; }

private:
    QString m_scripts;
    QString m_folder;
    QProcessEnvironment m_env;
    PulseDaemon m_audio;
    bool m_desktop = false;
};

} // namespace vemira::e2e
