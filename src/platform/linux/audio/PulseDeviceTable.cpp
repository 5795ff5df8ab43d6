#include "platform/linux/audio/PulseDeviceTable.h"

#include "platform/linux/audio/PulseConnection.h"

#include <QHash>
#include <pulse/error.h>
#include <pulse/introspect.h>

namespace vemira::pulse {

std::uint32_t stableDeviceID(const QByteArray& serverName)
{
    // FNV-1a: tiny, stable across runs and machines, well spread for short names.
    std::uint32_t hash = 2166136261u;
    for (const char c : serverName) {
        hash ^= std::uint8_t(c);
        hash *= 16777619u;
    }
    return hash == 0 ? 1 : hash;
}

std::uint32_t classifyTransport(const ServerEndpoint& endpoint)
{
    if (endpoint.bus == "bluetooth" || endpoint.api == "bluez")
        return AudioTransport::bluetooth;
    if (endpoint.bus == "usb")
        return AudioTransport::usb;
    if (!endpoint.hardware)
        return AudioTransport::virtualDevice;
    // The machine's own sound card: on the motherboard's buses, or declared internal.
    if (endpoint.formFactor == "internal" || endpoint.bus == "pci" || endpoint.bus == "platform" ||
        endpoint.bus == "isa")
        return AudioTransport::builtIn;
    return AudioTransport::unknown;
}

namespace {
StreamTarget targetOf(const ServerEndpoint& endpoint)
{
    return StreamTarget{endpoint.name, endpoint.sampleSpec, endpoint.channelMap};
}
} // namespace

DeviceTable DeviceTable::build(const QList<ServerEndpoint>& sinks,
                               const QList<ServerEndpoint>& sources, QByteArray defaultSink,
                               QByteArray defaultSource)
{
    DeviceTable table;
    table.defaultSink = std::move(defaultSink);
    table.defaultSource = std::move(defaultSource);
    QHash<std::uint32_t, const ServerEndpoint*> sinkByIndex;
    for (const ServerEndpoint& sink : sinks)
        sinkByIndex.insert(sink.index, &sink);
    QHash<QByteArray, const ServerEndpoint*> sourceByName;
    for (const ServerEndpoint& source : sources)
        sourceByName.insert(source.name, &source);

    for (const ServerEndpoint& sink : sinks) {
        DeviceEntry entry;
        entry.device.id = stableDeviceID(sink.name);
        entry.device.name = sink.description;
        entry.device.uid = QString::fromUtf8(sink.name);
        entry.device.output = true;
        entry.playback = targetOf(sink);
        entry.transport = classifyTransport(sink);
        if (!sink.hardware) {
            if (const ServerEndpoint* monitor = sourceByName.value(sink.monitorName)) {
                entry.device.input = true;
                entry.capture = targetOf(*monitor);
            }
        }
        table.entries.append(entry);
    }
    for (const ServerEndpoint& source : sources) {
        if (source.monitorOf != PA_INVALID_INDEX && sinkByIndex.contains(source.monitorOf))
            continue; // folded into its sink, or a loudspeaker's monitor
        DeviceEntry entry;
        entry.device.id = stableDeviceID(source.name);
        entry.device.name = source.description;
        entry.device.uid = QString::fromUtf8(source.name);
        entry.device.input = true;
        entry.capture = targetOf(source);
        entry.transport = classifyTransport(source);
        table.entries.append(entry);
    }
    return table;
}

const DeviceEntry* DeviceTable::find(std::uint32_t id) const
{
    for (const DeviceEntry& entry : entries) {
        if (entry.device.id == id)
            return &entry;
    }
    return nullptr;
}

QList<SoundDevice> DeviceTable::devices() const
{
    QList<SoundDevice> list;
    list.reserve(entries.size());
    for (const DeviceEntry& entry : entries)
        list.append(entry.device);
    return list;
}

std::uint32_t DeviceTable::idForSink(const QByteArray& name) const
{
    return stableDeviceID(name);
}

std::uint32_t DeviceTable::idForSource(const QByteArray& name) const
{
    for (const DeviceEntry& entry : entries) {
        if (entry.capture && entry.capture->name == name)
            return entry.device.id;
    }
    return stableDeviceID(name);
}

namespace {

struct Fetch {
    PulseConnection* connection = nullptr;
    QList<ServerEndpoint> sinks;
    QList<ServerEndpoint> sources;
    QByteArray defaultSink;
    QByteArray defaultSource;
    bool failed = false;
};

QByteArray property(pa_proplist* properties, const char* key)
{
    const char* value = properties ? pa_proplist_gets(properties, key) : nullptr;
    return value ? QByteArray(value) : QByteArray();
}

template <typename Info> ServerEndpoint endpointOf(const Info* info, bool hardware)
{
    ServerEndpoint endpoint;
    endpoint.index = info->index;
    endpoint.name = info->name ? QByteArray(info->name) : QByteArray();
    endpoint.description = info->description ? QString::fromUtf8(info->description) : QString();
    endpoint.hardware = hardware;
    endpoint.bus = property(info->proplist, "device.bus");
    endpoint.api = property(info->proplist, "device.api");
    endpoint.formFactor = property(info->proplist, "device.form_factor");
    endpoint.sampleSpec = info->sample_spec;
    endpoint.channelMap = info->channel_map;
    return endpoint;
}

void onSink(pa_context*, const pa_sink_info* info, int eol, void* data)
{
    auto* fetch = static_cast<Fetch*>(data);
    if (eol < 0)
        fetch->failed = true;
    if (eol != 0) {
        fetch->connection->wake();
        return;
    }
    ServerEndpoint endpoint = endpointOf(info, info->flags & PA_SINK_HARDWARE);
    endpoint.monitorName =
        info->monitor_source_name ? QByteArray(info->monitor_source_name) : QByteArray();
    fetch->sinks.append(endpoint);
}

void onSource(pa_context*, const pa_source_info* info, int eol, void* data)
{
    auto* fetch = static_cast<Fetch*>(data);
    if (eol < 0)
        fetch->failed = true;
    if (eol != 0) {
        fetch->connection->wake();
        return;
    }
    ServerEndpoint endpoint = endpointOf(info, info->flags & PA_SOURCE_HARDWARE);
    endpoint.monitorOf = info->monitor_of_sink;
    fetch->sources.append(endpoint);
}

void onServer(pa_context*, const pa_server_info* info, void* data)
{
    auto* fetch = static_cast<Fetch*>(data);
    if (info) {
        fetch->defaultSink =
            info->default_sink_name ? QByteArray(info->default_sink_name) : QByteArray();
        fetch->defaultSource =
            info->default_source_name ? QByteArray(info->default_source_name) : QByteArray();
    } else {
        fetch->failed = true;
    }
    fetch->connection->wake();
}

} // namespace

std::optional<DeviceTable> fetchDeviceTable(PulseConnection& connection, int timeoutMs, int* status)
{
    Fetch fetch;
    fetch.connection = &connection;
    pa_context* context = connection.context();
    // The three requests travel together; the server answers them in order.
    pa_operation* sinks = pa_context_get_sink_info_list(context, &onSink, &fetch);
    pa_operation* sources = pa_context_get_source_info_list(context, &onSource, &fetch);
    pa_operation* server = pa_context_get_server_info(context, &onServer, &fetch);
    pa_operation* const operations[] = {sinks, sources, server};
    const bool answered = connection.waitUntil(
        [&operations] {
            for (pa_operation* operation : operations) {
                if (operation && pa_operation_get_state(operation) == PA_OPERATION_RUNNING)
                    return false;
            }
            return true;
        },
        timeoutMs);
    bool complete = answered;
    for (pa_operation* operation : operations) {
        if (!operation) {
            complete = false;
            continue;
        }
        // Whatever is still pending must not call back into this stack frame later.
        if (pa_operation_get_state(operation) == PA_OPERATION_RUNNING)
            pa_operation_cancel(operation);
        if (pa_operation_get_state(operation) != PA_OPERATION_DONE)
            complete = false;
        pa_operation_unref(operation);
    }
    if (!complete || fetch.failed) {
        if (status)
            *status = connection.isReady() ? connection.lastStatus() : -PA_ERR_CONNECTIONTERMINATED;
        return std::nullopt;
    }
    return DeviceTable::build(fetch.sinks, fetch.sources, fetch.defaultSink, fetch.defaultSource);
}

} // namespace vemira::pulse
