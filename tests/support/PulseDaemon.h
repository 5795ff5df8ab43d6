#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>

// One client stream of its own process (pacat), with the properties a softphone or a music
// player sets; closed on destruction.
class ClientStream {
public:
    ClientStream(bool capture, const QString& application, const QString& role);
    ~ClientStream() { close(); }
    void close();
    qint64 pid() const { return m_process.processId(); }
    bool capture() const { return m_capture; }

private:
    bool m_capture;
    QProcess m_process;
};

// A private sound server with the two virtual call devices and a desk sink, started by
// scripts/env/pulseaudio.sh in a fresh folder and used by this process through PULSE_SERVER:
// PulseAudio, or PipeWire with pipewire-pulse when VEMIRA_SOUND_SERVER=pipewire.
class PulseDaemon {
public:
    ~PulseDaemon();
    // Empty on success, else what went wrong. With `pipewireDropIn`, a PipeWire server that
    // has only what that pipewire-pulse drop-in makes.
    QString start(const QString& pipewireDropIn = {});
    void stop();

    // Runs pactl against the daemon; the trimmed standard output, or a null string on failure.
    QString pactl(const QStringList& arguments) const;
    // Loads a null sink and returns its module index (or -1).
    int loadNullSink(const QString& name, const QString& description, int rate, int channels) const;
    // Loads a capture-only device and returns its module index (or -1); pipewire-pulse has no
    // module-null-source.
    int loadNullSource(const QString& name) const;
    bool isPipeWire() const;
    bool unloadModule(int index) const;
    QString defaultSink() const { return pactl({QStringLiteral("get-default-sink")}); }
    QString defaultSource() const { return pactl({QStringLiteral("get-default-source")}); }
    // Names of the streams currently connected (sink inputs and source outputs).
    int streamCount() const;
    // The server's list of `what` ("sinks", "sink-inputs", "clients"…).
    QJsonArray list(const QString& what) const;
    // The server's description of that stream; empty while it has none.
    QJsonObject streamOf(const ClientStream& stream) const;
    // Name of the sink (or source) the stream is on; empty while it has none.
    QString placeOf(const ClientStream& stream) const;

    QString folder() const { return m_folder ? m_folder->path() : QString(); }

private:
    QString script(const QString& command) const;
    std::unique_ptr<QTemporaryDir> m_folder;
    bool m_running = false;
    bool m_bare = false;
};
