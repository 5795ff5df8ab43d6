#pragma once

#include <QProcessEnvironment>
#include <QString>

namespace vemira::e2e {

// The environment of a `vemira demo` started by a test: this process's own, with the
// stand-in and the audio script named, and without what would reach the test's display,
// buses, audio server, data folder or realtime service (the demonstration brings its own).
// The Qt platform is the one of a terminal without a screen: the demonstration must not
// hand it down to the programs it shows on its own display.
inline QProcessEnvironment demoProcessEnvironment(const QString& standin,
                                                  const QString& pulseScript)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("VEMIRA_STANDIN"), standin);
    env.insert(QStringLiteral("VEMIRA_PULSE_SCRIPT"), pulseScript);
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    for (const char* inherited : {"DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "PULSE_SERVER",
                                  "AT_SPI_BUS_ADDRESS", "VEMIRA_DATA_DIR", "VEMIRA_REALTIME_URL"})
        env.remove(QString::fromLatin1(inherited));
    return env;
}

} // namespace vemira::e2e
