#pragma once

#include "audio/PhoneAudioRouting.h"

#include <QByteArray>
#include <QHash>
#include <cstdint>
#include <memory>
#include <optional>
#include <pulse/ext-stream-restore.h>
#include <pulse/introspect.h>
#include <pulse/subscribe.h>
#include <vector>

namespace vemira::pulse {

class PulseConnection;

// What identifies a playback or capture stream on the server (its proplist).
struct StreamFacts {
    // "application.process.id"; PipeWire's own clients set it on the client only.
    qint64 processId = 0;
    QString applicationName; // "application.name"
    QString processBinary;   // "application.process.binary"
    QString mediaRole;       // "media.role"
};

// A stream of the owner that carries the call: a stream marked with another role (an event
// sound, music) is not part of the call even when the phone application plays it.
bool isCallStream(const StreamFacts& stream, const PhoneStreamOwner& owner);

// Routing on PulseAudio and on PipeWire (through pipewire-pulse): moves the owner's sink inputs
// onto the call device's sink and its source outputs onto the voice device's monitor, watches
// the server for streams opened later, and moves back at the end those still where we put
// them. A move is remembered by the server for the application's next streams (PulseAudio's
// stream-restore database, WirePlumber's state by role or application), so the softphone's next
// ring would be heard on a virtual device: a stream whose application closed it during the
// call is stood in for by a silent stream of ours with the same role and name, moved back in
// its place, which is the one way that makes WirePlumber forget (it ignores the database); on
// PulseAudio the database entries are then written back as they were before the call. Every
// move is waited for until the server shows the stream on its device: pipewire-pulse loses a
// move whose client disconnects at once.
//
// Threads: route/release/counts on the main thread; the server's answers and events are
// handled on the connection's loop thread under its lock, which also guards the state below.
class PulseStreamRouter final : public PhoneAudioRouting {
public:
    PulseStreamRouter();
    ~PulseStreamRouter() override;

    Status route(const PhoneStreamOwner& owner, const QString& callUID,
                 const QString& voiceUID) override;
    void release() override;
    bool routing() const override { return m_routing; }
    PhoneRoutingCounts counts() const override;

    // What the stream-restore database held for a key before the call.
    struct Remembered {
        pa_ext_stream_restore_info info{}; // its name and device are copied to the members below
        QByteArray name;
        bool hasDevice = false;
        QByteArray device;
    };

private:
    struct Moved {
        bool capture = false;
        std::uint32_t stream = 0;
        // The sink or source it was on; PA_INVALID_INDEX when it was already on a virtual
        // device as the call began (left there by an earlier call): it goes to the default.
        std::uint32_t from = 0;
        QByteArray restoreKey;
        StreamFacts facts;
    };
    // A stream that should be seen on a device before the connection closes.
    struct Expected {
        bool capture = false;
        std::uint32_t stream = 0;
        std::uint32_t device = 0;
    };

    static void onEvent(pa_context*, pa_subscription_event_type_t type, std::uint32_t index,
                        void* self);
    static void onSinkInput(pa_context*, const pa_sink_input_info* info, int eol, void* self);
    static void onSourceOutput(pa_context*, const pa_source_output_info* info, int eol, void* self);
    static void onDone(pa_context*, int success, void* self);
    // Loop thread: the stream's client, for the facts PipeWire keeps there only.
    void lookUpClient(bool capture, const pa_proplist* list, std::uint32_t client,
                      std::uint32_t stream, std::uint32_t device);
    // Loop thread: moves the stream when it belongs to the call and is not there yet.
    // `restoreKey`: the entry under which the server remembers the stream's device.
    void consider(bool capture, std::uint32_t stream, std::uint32_t device, const StreamFacts&,
                  const QByteArray& restoreKey);
    // Main thread, lock held. Where the stream is to go back to, or PA_INVALID_INDEX.
    std::uint32_t homeOf(const Moved& moved);
    bool putBack(const Moved& moved, std::uint32_t home);
    // A stream of ours like the closed one, moved home and closed once it is there.
    void standIn(const Moved& closed, std::uint32_t home);
    // Until each stream is on its device or gone, at most the request timeout.
    bool confirm(const std::vector<Expected>& expected);
    // Main thread, lock held: the database before the call, and written back after it.
    void snapshotRemembered();
    void restoreRemembered(const QList<QByteArray>& keys);

    std::unique_ptr<PulseConnection> m_connection;
    bool m_routing = false;
    // Loop-thread state, under the connection's lock.
    PhoneStreamOwner m_owner;
    std::uint32_t m_sink = 0;   // the call device's sink
    std::uint32_t m_source = 0; // the voice device's monitor
    QList<QByteArray> m_virtualNames;
    bool m_watching = false;
    std::vector<Moved> m_moved;
    std::vector<Expected> m_expected; // moves made while the call began
    int m_changes = 0;                // stream changes seen, to wait on confirmations
    // Empty when the server has no stream-restore database.
    std::optional<QHash<QByteArray, Remembered>> m_remembered;
    PhoneRoutingCounts m_counts;
    int m_pending = 0;
};

} // namespace vemira::pulse
