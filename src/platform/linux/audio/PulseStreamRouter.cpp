#include "platform/linux/audio/PulseStreamRouter.h"

#include "platform/linux/audio/PulseConnection.h"
#include "platform/linux/audio/PulseDeviceTable.h"

#include <QHash>
#include <pulse/error.h>
#include <pulse/proplist.h>

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

    snapshotRemembered();
    m_owner = owner;
    m_moved.clear();
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
    return std::nullopt;
}

void PulseStreamRouter::onEvent(pa_context* context, pa_subscription_event_type_t type,
                                std::uint32_t index, void* data)
{
    auto* self = static_cast<PulseStreamRouter*>(data);
    if (!self->m_watching || (type & PA_SUBSCRIPTION_EVENT_TYPE_MASK) != PA_SUBSCRIPTION_EVENT_NEW)
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
        self->consider(false, info->index, info->sink, factsOf(info->proplist),
                       restoreKeyOf(info->proplist));
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
        self->consider(true, info->index, info->source, factsOf(info->proplist),
                       restoreKeyOf(info->proplist));
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
    if (!m_watching || device == target || !isCallStream(facts, m_owner))
        return;
    for (const Moved& moved : m_moved) {
        if (moved.capture == capture && moved.stream == stream)
            return;
    }
    m_moved.push_back({capture, stream, device, restoreKey});
    ++m_counts.moved;
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
    PulseConnection& server = *m_connection;
    PulseConnection::Lock lock(server);
    m_watching = false;
    pa_context_set_subscribe_callback(server.context(), nullptr, nullptr);
    // Moves still under way land first, so nothing is put back before it arrived.
    server.waitUntil([this] { return m_pending == 0; }, requestTimeoutMs);

    Placement now{&server, {}, {}};
    server.finish(pa_context_get_sink_input_info_list(server.context(), &onPlacedSinkInput, &now),
                  requestTimeoutMs);
    server.finish(
        pa_context_get_source_output_info_list(server.context(), &onPlacedSourceOutput, &now),
        requestTimeoutMs);
    QList<QByteArray> forget;
    for (const Moved& moved : m_moved) {
        const QHash<std::uint32_t, std::uint32_t>& placed =
            moved.capture ? now.sourceOutputs : now.sinkInputs;
        const auto where = placed.constFind(moved.stream);
        if (where == placed.constEnd()) {
            ++m_counts.closed;
        } else if (*where != (moved.capture ? m_source : m_sink)) {
            ++m_counts.left; // the user chose another device meanwhile: theirs stands
            continue;
        } else {
            putBack(moved);
        }
        if (!moved.restoreKey.isEmpty() && !forget.contains(moved.restoreKey))
            forget.append(moved.restoreKey);
    }
    m_moved.clear();
    restoreRemembered(forget);
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
        if (before != m_remembered->constEnd()) {
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

void PulseStreamRouter::putBack(const Moved& moved)
{
    PulseConnection& server = *m_connection;
    pa_context* context = server.context();
    Outcome outcome{&server, false};
    server.finish(moved.capture ? pa_context_move_source_output_by_index(
                                      context, moved.stream, moved.from, &onOutcome, &outcome)
                                : pa_context_move_sink_input_by_index(
                                      context, moved.stream, moved.from, &onOutcome, &outcome),
                  requestTimeoutMs);
    if (!outcome.success) {
        // The device it came from is gone: the user's default is the next best place.
        outcome = {&server, false};
        server.finish(moved.capture
                          ? pa_context_move_source_output_by_name(
                                context, moved.stream, "@DEFAULT_SOURCE@", &onOutcome, &outcome)
                          : pa_context_move_sink_input_by_name(
                                context, moved.stream, "@DEFAULT_SINK@", &onOutcome, &outcome),
                      requestTimeoutMs);
    }
    if (outcome.success)
        ++m_counts.returned;
    else
        ++m_counts.left;
}

} // namespace pulse

} // namespace vemira
