#pragma once

#include "audio/VirtualAudioDevices.h"

#include <QByteArray>
#include <QString>
#include <memory>

namespace vemira::pulse {

class PulseConnection;

// The virtual devices as null sinks of PulseAudio (or pipewire-pulse): a sink named after the
// device's uid, whose monitor is the device's input. Start-up files: a drop-in of
// ~/.config/pulse/default.pa.d (included from the user's default.pa), or of
// ~/.config/pipewire/pipewire-pulse.conf.d when the server is PipeWire.
class PulseVirtualDevices final : public VirtualAudioDevices {
public:
    // `configHome`: the user's configuration folder (XDG_CONFIG_HOME or ~/.config).
    explicit PulseVirtualDevices(QString configHome = {});
    ~PulseVirtualDevices() override;

    Status check() override;
    Status create() override;
    Status remove() override;
    bool persistent() const override;
    Result<QString> persist() override;
    Status forget() override;

    static constexpr int kRate = 48000;
    static constexpr int kChannels = 2;
    // The load-module argument of one device, as the server's start-up files write it.
    static QByteArray moduleArguments(const QString& uid, const QString& description);

    QString pulseDropIn() const;
    QString pipewireDropIn() const;

private:
    PulseConnection* connection(int* status);

    QString m_configHome;
    std::unique_ptr<PulseConnection> m_connection;
};

} // namespace vemira::pulse
