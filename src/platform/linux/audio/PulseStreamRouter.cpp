#include "platform/linux/audio/PulseStreamRouter.h"

#include "platform/linux/audio/PulseConnection.h"
#include "platform/linux/audio/PulseDeviceTable.h"

#include <QElapsedTimer>
#include <QHash>
#include <algorithm>
#include <pulse/error.h>
#include <pulse/proplist.h>
#include <pulse/stream.h>

namespace vemira {

std::unique_ptr<PhoneAudioRouting> createPlatformPhoneAudioRouting()
{
    return std::make_unique<pulse::PulseStreamRouter>();
}

namespace pulse {

namespace {
constexpr int connectTimeoutMs = 3000;
constexpr int requestTimeoutMs = 3000;

QString property(const pa_proplist* list, const char* key)
{
    const char* value = list ? pa_proplist_gets(list, key) : nullptr;
    return value ? QString::fromUtf8(value) : QString();
}

StreamFacts factsOf(const pa_proplist* list)
{
    StreamFacts facts;
    facts.processId = property(list, PA_PROP_APPLICATION_PROCESS_ID).toLongLong();
    facts.applicationName = property(list, PA_PROP_APPLICATION_NAME);
    facts.processBinary = property(list, PA_PROP_APPLICATION_PROCESS_BINARY);
    facts.mediaRole = property(list, PA_PROP_MEDIA_ROLE);
    return facts;
}

// Index of a sink (or source) by name, or PA_INVALID_INDEX. Caller holds the lock.
struct IndexLookup {
    PulseConnection* connection = nullptr;
    std::uint32_t index = PA_INVALID_INDEX;
};

void onSinkIndex(pa_context*, const pa_sink_info* info, int eol, void* data)
{
    auto* lookup = static_cast<IndexLookup*>(data);
    if (!eol && info)
        lookup->index = info->index;
    lookup->connection->wake();
}

void onSourceIndex(pa_context*, const pa_source_info* info, int eol, void* data)
{
    auto* lookup = static_cast<IndexLookup*>(data);
    if (!eol && info)
        lookup->index = info->index;
    lookup->connection->wake();
}

std::uint32_t indexOf(PulseConnection& connection, const QByteArray& name, bool source)
{
    IndexLookup lookup{&connection};
    pa_operation* operation =
        source ? pa_context_get_source_info_by_name(connection.context(), name.constData(),
                                                    &onSourceIndex, &lookup)
               : pa_context_get_sink_info_by_name(connection.context(), name.constData(),
                                                  &onSinkIndex, &lookup);
    connection.finish(operation, requestTimeoutMs);
    return lookup.index;
}

// Where every stream is now: stream index → device index.
struct Placement {
    PulseConnection* connection = nullptr;
    QHash<std::uint32_t, std::uint32_t> sinkInputs;
    QHash<std::uint32_t, std::uint32_t> sourceOutputs;
};

void onPlacedSinkInput(pa_context*, const pa_sink_input_info* info, int eol, void* data)
{
    auto* placement = static_cast<Placement*>(data);
    if (!eol && info)
        placement->sinkInputs.insert(info->index, info->sink);
    placement->connection->wake();
}

void onPlacedSourceOutput(pa_context*, const pa_source_output_info* info, int eol, void* data)
{
    auto* placement = static_cast<Placement*>(data);
    if (!eol && info)
        placement->sourceOutputs.insert(info->index, info->source);
    placement->connection->wake();
}

// Caller holds the lock.
Placement placementNow(PulseConnection& server)
{
    Placement now{&server, {}, {}};
    server.finish(pa_context_get_sink_input_info_list(server.context(), &onPlacedSinkInput, &now),
                  requestTimeoutMs);
    server.finish(
        pa_context_get_source_output_info_list(server.context(), &onPlacedSourceOutput, &now),
        requestTimeoutMs);
    return now;
}

struct Outcome {
    PulseConnection* connection = nullptr;
    bool success = false;
};

void onOutcome(pa_context*, int success, void* data)
{
    auto* outcome = static_cast<Outcome*>(data);
    outcome->success = success != 0;
    outcome->connection->wake();
}

// The stream-restore database, entry by entry.
struct RememberedRead {
    PulseConnection* connection = nullptr;
    QHash<QByteArray, PulseStreamRouter::Remembered>* entries = nullptr;
    bool failed = false;
};

void onRemembered(pa_context*, const pa_ext_stream_restore_info* info, int eol, void* data)
{
    auto* read = static_cast<RememberedRead*>(data);
    if (eol < 0)
        read->failed = true;
    if (!eol && info && info->name) {
        PulseStreamRouter::Remembered entry;
        entry.info = *info;
        entry.name = info->name;
        entry.hasDevice = info->device != nullptr;
        entry.device = info->device ? QByteArray(info->device) : QByteArray();
        read->entries->insert(entry.name, entry);
    }
    if (eol)
        read->connection->wake();
}

// The server's default sink or source by name.
struct DefaultNames {
    PulseConnection* connection = nullptr;
    QByteArray sink;
    QByteArray source;
};

void onServerInfo(pa_context*, const pa_server_info* info, void* data)
{
    auto* names = static_cast<DefaultNames*>(data);
    if (info) {
        names->sink = info->default_sink_name ? info->default_sink_name : "";
        names->source = info->default_source_name ? info->default_source_name : "";
    }
    names->connection->wake();
}

void onStreamState(pa_stream*, void* data)
{
    static_cast<PulseConnection*>(data)->wake();
}

// A stream's facts completed from its client's, before the stream is considered.
struct ClientLookup {
    PulseStreamRouter* router = nullptr;
    bool capture = false;
    std::uint32_t stream = 0;
    std::uint32_t device = 0;
    StreamFacts facts;
    QByteArray restoreKey;
};

QByteArray restoreKeyOf(const pa_proplist* list)
{
    return property(list, "module-stream-restore.id").toUtf8();
}

AppError unreachable(int status)
{
    return AppError::withStatus(
        QStringLiteral("Le son du téléphone n’a pas pu être dirigé vers Vemira : serveur audio "
                       "injoignable"),
        status);
}
} // namespace

bool isCallStream(const StreamFacts& stream, const PhoneStreamOwner& owner)
{
    if (!stream.mediaRole.isEmpty() && stream.mediaRole != QLatin1String("phone"))
        return false;
    if (owner.processId > 0 && stream.processId == owner.processId)
        return true;
    for (const QString& name : owner.names) {
        if (name.isEmpty())
            continue;
        if (name.compare(stream.applicationName, Qt::CaseInsensitive) == 0 ||
            name.compare(stream.processBinary, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

PulseStreamRouter::PulseStreamRouter() = default;

PulseStreamRouter::~PulseStreamRouter()
{
    release();
}

PhoneRoutingCounts PulseStreamRouter::counts() const
{
    if (!m_connection)
        return m_counts;
    PulseConnection::Lock lock(*m_connection);
    return m_counts;
}

Status PulseStreamRouter::route(const PhoneStreamOwner& owner, const QString& callUID,
                                const QString& voiceUID)
{
    if (m_routing)
        return std::nullopt;
    PulseConnection::Failure failure{-PA_ERR_CONNECTIONREFUSED};
    m_connection = PulseConnection::connect("Vemira", connectTimeoutMs, &failure);
    if (!m_connection)
        return unreachable(failure.status);
    PulseConnection& server = *m_connection;
    PulseConnection::Lock lock(server);

    int status = -PA_ERR_UNKNOWN;
    const std::optional<DeviceTable> table = fetchDeviceTable(server, requestTimeoutMs, &status);
    if (!table)
        return unreachable(status);
    const DeviceEntry* call = nullptr;
    const DeviceEntry* voice = nullptr;
    for (const DeviceEntry& entry : table->entries) {
        if (!call && entry.device.uid == callUID && entry.playback)
            call = &entry;
        if (!voice && entry.device.uid == voiceUID && entry.capture)
            voice = &entry;
    }
    m_sink = call ? indexOf(server, call->playback->name, false) : PA_INVALID_INDEX;
    m_source = voice ? indexOf(server, voice->capture->name, true) : PA_INVALID_INDEX;
    if (m_sink == PA_INVALID_INDEX || m_source == PA_INVALID_INDEX) {
        return AppError(QStringLiteral(
            "Les appareils audio virtuels « Brelian » sont introuvables : créez-les dans "
            "l’assistant de configuration."));
    }

    m_virtualNames.clear();
    for (const DeviceEntry* entry : {call, voice}) {
        for (const auto& side : {entry->playback, entry->capture}) {
            if (side)
                m_virtualNames.append(side->name);
        }
    }
    snapshotRemembered();
    m_owner = owner;
    m_moved.clear();
    m_expected.clear();
    m_counts = {};
    m_watching = true;
    m_routing = true;
    // Watch first, then list: a stream opened in between is seen twice, and moved once.
    pa_context_set_subscribe_callback(server.context(), &PulseStreamRouter::onEvent, this);
    pa_operation_unref(
        pa_context_subscribe(server.context(),
                             pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SINK_INPUT |
                                                    PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT),
                             nullptr, nullptr));
    m_pending += 2;
    pa_operation_unref(pa_context_get_sink_input_info_list(server.context(),
                                                           &PulseStreamRouter::onSinkInput, this));
    pa_operation_unref(pa_context_get_source_output_info_list(
        server.context(), &PulseStreamRouter::onSourceOutput, this));
    server.waitUntil([this] { return m_pending == 0; }, requestTimeoutMs);
    confirm(m_expected);
    m_expected.clear();
    return std::nullopt;
}

void PulseStreamRouter::onEvent(pa_context* context, pa_subscription_event_type_t type,
                                std::uint32_t index, void* data)
{
    auto* self = static_cast<PulseStreamRouter*>(data);
    if ((type & PA_SUBSCRIPTION_EVENT_TYPE_MASK) != PA_SUBSCRIPTION_EVENT_NEW) {
        ++self->m_changes;
        self->m_connection->wake();
        return;
    }
    if (!self->m_watching)
        return;
    const int facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    pa_operation* operation = nullptr;
    if (facility == PA_SUBSCRIPTION_EVENT_SINK_INPUT)
        operation = pa_context_get_sink_input_info(context, index, &onSinkInput, self);
    else if (facility == PA_SUBSCRIPTION_EVENT_SOURCE_OUTPUT)
        operation = pa_context_get_source_output_info(context, index, &onSourceOutput, self);
    if (operation) {
        ++self->m_pending;
        pa_operation_unref(operation);
    }
}

void PulseStreamRouter::onSinkInput(pa_context*, const pa_sink_input_info* info, int eol,
                                    void* data)
{
    auto* self = static_cast<PulseStreamRouter*>(data);
    if (eol) {
        --self->m_pending;
        self->m_connection->wake();
        return;
    }
    if (info)
        self->lookUpClient(false, info->proplist, info->client, info->index, info->sink);
}

void PulseStreamRouter::onSourceOutput(pa_context*, const pa_source_output_info* info, int eol,
                                       void* data)
{
    auto* self = static_cast<PulseStreamRouter*>(data);
    if (eol) {
        --self->m_pending;
        self->m_connection->wake();
        return;
    }
    if (info)
        self->lookUpClient(true, info->proplist, info->client, info->index, info->source);
}

void PulseStreamRouter::lookUpClient(bool capture, const pa_proplist* list, std::uint32_t client,
                                     std::uint32_t stream, std::uint32_t device)
{
    auto lookup = std::make_unique<ClientLookup>(
        ClientLookup{this, capture, stream, device, factsOf(list), restoreKeyOf(list)});
    if (lookup->facts.processId > 0 || client == PA_INVALID_INDEX) {
        consider(capture, stream, device, lookup->facts, lookup->restoreKey);
        return;
    }
    const auto onClient = [](pa_context*, const pa_client_info* info, int eol, void* data) {
        auto* found = static_cast<ClientLookup*>(data);
        if (!eol && info) {
            const StreamFacts owner = factsOf(info->proplist);
            found->facts.processId = owner.processId;
            if (found->facts.applicationName.isEmpty())
                found->facts.applicationName = owner.applicationName;
            if (found->facts.processBinary.isEmpty())
                found->facts.processBinary = owner.processBinary;
            return;
        }
        const std::unique_ptr<ClientLookup> done(found);
        PulseStreamRouter& router = *done->router;
        router.consider(done->capture, done->stream, done->device, done->facts, done->restoreKey);
        --router.m_pending;
        router.m_connection->wake();
    };
    pa_operation* operation =
        pa_context_get_client_info(m_connection->context(), client, onClient, lookup.get());
    if (!operation) {
        consider(capture, stream, device, lookup->facts, lookup->restoreKey);
        return;
    }
    (void)lookup.release(); // the callback owns it now
    ++m_pending;
    pa_operation_unref(operation);
}

void PulseStreamRouter::onDone(pa_context*, int, void* data)
{
    auto* self = static_cast<PulseStreamRouter*>(data);
    --self->m_pending;
    self->m_connection->wake();
}

void PulseStreamRouter::consider(bool capture, std::uint32_t stream, std::uint32_t device,
                                 const StreamFacts& facts, const QByteArray& restoreKey)
{
    const std::uint32_t target = capture ? m_source : m_sink;
    if (!m_watching || !isCallStream(facts, m_owner))
        return;
    for (const Moved& moved : m_moved) {
        if (moved.capture == capture && moved.stream == stream)
            return;
    }
    ++m_counts.moved;
    // Already there: the server put it where an earlier call's move left its memory. It is
    // the call's all the same, and goes to the default device afterwards.
    if (device == target) {
        m_moved.push_back({capture, stream, PA_INVALID_INDEX, restoreKey, facts});
        return;
    }
    m_moved.push_back({capture, stream, device, restoreKey, facts});
    m_expected.push_back({capture, stream, target});
    pa_context* context = m_connection->context();
    pa_operation* operation =
        capture ? pa_context_move_source_output_by_index(context, stream, target, &onDone, this)
                : pa_context_move_sink_input_by_index(context, stream, target, &onDone, this);
    if (operation) {
        ++m_pending;
        pa_operation_unref(operation);
    }
}

void PulseStreamRouter::release()
{
    if (!m_routing)
        return;
    m_routing = false;
    {
        PulseConnection& server = *m_connection;
        PulseConnection::Lock lock(server);
        m_watching = false;
        // Moves still under way land first, so nothing is put back before it arrived.
        server.waitUntil([this] { return m_pending == 0; }, requestTimeoutMs);

        const Placement now = placementNow(server);
        QList<QByteArray> forget;
        std::vector<Expected> back;
        std::vector<const Moved*> closed;
        for (const Moved& moved : m_moved) {
            const QHash<std::uint32_t, std::uint32_t>& placed =
                moved.capture ? now.sourceOutputs : now.sinkInputs;
            const auto where = placed.constFind(moved.stream);
            if (where == placed.constEnd()) {
                ++m_counts.closed;
                // One stand-in per kind of stream: the server's memory is by role or name.
                const bool sameKind = std::any_of(closed.begin(), closed.end(), [&](auto* c) {
                    return c->capture == moved.capture &&
                           c->facts.mediaRole == moved.facts.mediaRole &&
                           c->facts.applicationName == moved.facts.applicationName &&
                           c->facts.processBinary == moved.facts.processBinary;
                });
                if (!sameKind)
                    closed.push_back(&moved);
            } else if (*where != (moved.capture ? m_source : m_sink)) {
                ++m_counts.left; // the user chose another device meanwhile: theirs stands
                continue;
            } else {
                const std::uint32_t home = homeOf(moved);
                if (putBack(moved, home)) {
                    ++m_counts.returned;
                    back.push_back({moved.capture, moved.stream, home});
                } else {
                    ++m_counts.left;
                }
            }
            if (!moved.restoreKey.isEmpty() && !forget.contains(moved.restoreKey))
                forget.append(moved.restoreKey);
        }
        confirm(back);
        for (const Moved* gone : closed)
            standIn(*gone, homeOf(*gone));
        m_moved.clear();
        restoreRemembered(forget);
        pa_context_set_subscribe_callback(server.context(), nullptr, nullptr);
    }
    // Only now: every move above has been seen to land.
    m_connection.reset();
}

void PulseStreamRouter::snapshotRemembered()
{
    PulseConnection& server = *m_connection;
    QHash<QByteArray, Remembered> entries;
    RememberedRead read{&server, &entries, false};
    pa_operation* operation = pa_ext_stream_restore_read(server.context(), &onRemembered, &read);
    // No database (module not loaded, or a server without it): nothing will be remembered.
    if (operation && server.finish(operation, requestTimeoutMs) && !read.failed)
        m_remembered = std::move(entries);
    else
        m_remembered.reset();
}

void PulseStreamRouter::restoreRemembered(const QList<QByteArray>& keys)
{
    if (!m_remembered || keys.isEmpty())
        return;
    PulseConnection& server = *m_connection;
    for (const QByteArray& key : keys) {
        Outcome outcome{&server, false};
        const auto before = m_remembered->constFind(key);
        // A virtual device remembered before the call is an earlier call's leftover.
        if (before != m_remembered->constEnd() &&
            !(before->hasDevice && m_virtualNames.contains(before->device))) {
            pa_ext_stream_restore_info info = before->info;
            info.name = before->name.constData();
            info.device = before->hasDevice ? before->device.constData() : nullptr;
            server.finish(pa_ext_stream_restore_write(server.context(), PA_UPDATE_REPLACE, &info, 1,
                                                      0, &onOutcome, &outcome),
                          requestTimeoutMs);
        } else {
            // Nothing was remembered: the application follows the default device again.
            const char* const names[] = {key.constData(), nullptr};
            server.finish(
                pa_ext_stream_restore_delete(server.context(), names, &onOutcome, &outcome),
                requestTimeoutMs);
        }
    }
    m_remembered.reset();
}

std::uint32_t PulseStreamRouter::homeOf(const Moved& moved)
{
    PulseConnection& server = *m_connection;
    if (moved.from != PA_INVALID_INDEX) {
        IndexLookup lookup{&server};
        server.finish(moved.capture ? pa_context_get_source_info_by_index(
                                          server.context(), moved.from, &onSourceIndex, &lookup)
                                    : pa_context_get_sink_info_by_index(
                                          server.context(), moved.from, &onSinkIndex, &lookup),
                      requestTimeoutMs);
        if (lookup.index != PA_INVALID_INDEX)
            return lookup.index;
    }
    // The device it came from is gone, or it came already routed: the user's default.
    DefaultNames names{&server, {}, {}};
    server.finish(pa_context_get_server_info(server.context(), &onServerInfo, &names),
                  requestTimeoutMs);
    const QByteArray& name = moved.capture ? names.source : names.sink;
    return name.isEmpty() ? PA_INVALID_INDEX : indexOf(server, name, moved.capture);
}

bool PulseStreamRouter::putBack(const Moved& moved, std::uint32_t home)
{
    if (home == PA_INVALID_INDEX)
        return false;
    PulseConnection& server = *m_connection;
    pa_context* context = server.context();
    Outcome outcome{&server, false};
    server.finish(moved.capture ? pa_context_move_source_output_by_index(context, moved.stream,
                                                                         home, &onOutcome, &outcome)
                                : pa_context_move_sink_input_by_index(context, moved.stream, home,
                                                                      &onOutcome, &outcome),
                  requestTimeoutMs);
    return outcome.success;
}

void PulseStreamRouter::standIn(const Moved& closed, std::uint32_t home)
{
    if (home == PA_INVALID_INDEX)
        return;
    PulseConnection& server = *m_connection;
    pa_proplist* properties = pa_proplist_new();
    const auto set = [properties](const char* key, const QString& value) {
        if (!value.isEmpty())
            pa_proplist_sets(properties, key, value.toUtf8().constData());
    };
    set(PA_PROP_MEDIA_ROLE, closed.facts.mediaRole);
    set(PA_PROP_APPLICATION_NAME, closed.facts.applicationName);
    set(PA_PROP_APPLICATION_PROCESS_BINARY, closed.facts.processBinary);
    const pa_sample_spec spec{PA_SAMPLE_S16LE, 48000, 2};
    pa_stream* stream =
        pa_stream_new_with_proplist(server.context(), "Vemira", &spec, nullptr, properties);
    pa_proplist_free(properties);
    if (!stream)
        return;
    pa_stream_set_state_callback(stream, &onStreamState, &server);
    // Never written to: it stays silent for the moment it exists.
    const int connected =
        closed.capture ? pa_stream_connect_record(stream, nullptr, nullptr, PA_STREAM_NOFLAGS)
                       : pa_stream_connect_playback(stream, nullptr, nullptr, PA_STREAM_NOFLAGS,
                                                    nullptr, nullptr);
    const auto settled = [stream] {
        const pa_stream_state_t state = pa_stream_get_state(stream);
        return state == PA_STREAM_READY || !PA_STREAM_IS_GOOD(state);
    };
    if (connected == 0 && server.waitUntil(settled, requestTimeoutMs) &&
        pa_stream_get_state(stream) == PA_STREAM_READY) {
        const Moved standing{closed.capture, pa_stream_get_index(stream), home, {}, {}};
        if (putBack(standing, home))
            confirm({{closed.capture, standing.stream, home}});
    }
    pa_stream_set_state_callback(stream, nullptr, nullptr);
    pa_stream_disconnect(stream);
    pa_stream_unref(stream);
}

bool PulseStreamRouter::confirm(const std::vector<Expected>& expected)
{
    if (expected.empty())
        return true;
    PulseConnection& server = *m_connection;
    QElapsedTimer clock;
    clock.start();
    while (true) {
        const int changes = m_changes;
        const Placement now = placementNow(server);
        const bool landed =
            std::all_of(expected.begin(), expected.end(), [&now](const Expected& stream) {
                const auto& placed = stream.capture ? now.sourceOutputs : now.sinkInputs;
                const auto where = placed.constFind(stream.stream);
                return where == placed.constEnd() || *where == stream.device;
            });
        const qint64 left = requestTimeoutMs - clock.elapsed();
        if (landed || left <= 0 || !server.isAlive())
            return landed;
        // The server tells of each change; the bound covers a change it never reports.
        server.waitUntil([&] { return m_changes != changes; }, int(std::min<qint64>(left, 100)));
    }
}

} // namespace pulse

} // namespace vemira
