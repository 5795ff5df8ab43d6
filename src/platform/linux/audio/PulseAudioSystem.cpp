#include "platform/linux/audio/PulseAudioSystem.h"

#include "platform/linux/audio/PulseConnection.h"

#include <pulse/error.h>
#include <pulse/introspect.h>

namespace vemira::pulse {

namespace {
constexpr int connectTimeoutMs = 3000;
constexpr int requestTimeoutMs = 3000;

struct Outcome {
    PulseConnection* connection = nullptr;
    bool success = false;
};

void onSuccess(pa_context*, int success, void* data)
{
    auto* outcome = static_cast<Outcome*>(data);
    outcome->success = success != 0;
    outcome->connection->wake();
}
} // namespace

PulseAudioSystem::PulseAudioSystem() = default;
PulseAudioSystem::~PulseAudioSystem() = default;

PulseConnection* PulseAudioSystem::connection(int* status) const
{
    if (m_connection) {
        PulseConnection::Lock lock(*m_connection);
        if (m_connection->isReady())
            return m_connection.get();
    }
    m_connection.reset();
    PulseConnection::Failure failure{-PA_ERR_CONNECTIONREFUSED};
    m_connection = PulseConnection::connect("Vemira", connectTimeoutMs, &failure);
    if (!m_connection && status)
        *status = failure.status;
    return m_connection.get();
}

std::optional<DeviceTable> PulseAudioSystem::table(int* status) const
{
    PulseConnection* server = connection(status);
    if (!server)
        return std::nullopt;
    PulseConnection::Lock lock(*server);
    return fetchDeviceTable(*server, requestTimeoutMs, status);
}

QList<SoundDevice> PulseAudioSystem::devices() const
{
    const std::optional<DeviceTable> current = table(nullptr);
    return current ? current->devices() : QList<SoundDevice>();
}

std::optional<std::uint32_t> PulseAudioSystem::transportType(std::uint32_t deviceID) const
{
    const std::optional<DeviceTable> current = table(nullptr);
    const DeviceEntry* entry = current ? current->find(deviceID) : nullptr;
    if (!entry)
        return std::nullopt;
    return entry->transport;
}

Result<std::uint32_t> PulseAudioSystem::readDefault(std::uint32_t selector)
{
    if (selector != AudioSelector::defaultInput && selector != AudioSelector::defaultOutput)
        return readFailure(-PA_ERR_INVALID);
    int status = -PA_ERR_UNKNOWN;
    const std::optional<DeviceTable> current = table(&status);
    if (!current)
        return readFailure(status);
    if (selector == AudioSelector::defaultInput) {
        if (current->defaultSource.isEmpty())
            return readFailure(-PA_ERR_NOENTITY);
        return current->idForSource(current->defaultSource);
    }
    if (current->defaultSink.isEmpty())
        return readFailure(-PA_ERR_NOENTITY);
    return current->idForSink(current->defaultSink);
}

Status PulseAudioSystem::writeDefault(std::uint32_t selector, std::uint32_t deviceID)
{
    if (selector != AudioSelector::defaultInput && selector != AudioSelector::defaultOutput)
        return writeFailure(-PA_ERR_INVALID);
    int status = -PA_ERR_UNKNOWN;
    PulseConnection* server = connection(&status);
    if (!server)
        return writeFailure(status);
    PulseConnection::Lock lock(*server);
    const std::optional<DeviceTable> current = fetchDeviceTable(*server, requestTimeoutMs, &status);
    if (!current)
        return writeFailure(status);
    const DeviceEntry* entry = current->find(deviceID);
    const bool input = selector == AudioSelector::defaultInput;
    const std::optional<StreamTarget>& target =
        entry ? (input ? entry->capture : entry->playback) : std::optional<StreamTarget>();
    if (!target)
        return writeFailure(-PA_ERR_NOENTITY);

    Outcome outcome{server, false};
    pa_operation* operation =
        input ? pa_context_set_default_source(server->context(), target->name.constData(),
                                              &onSuccess, &outcome)
              : pa_context_set_default_sink(server->context(), target->name.constData(), &onSuccess,
                                            &outcome);
    if (!server->finish(operation, requestTimeoutMs) || !outcome.success)
        return writeFailure(server->isReady() ? server->lastStatus()
                                              : -PA_ERR_CONNECTIONTERMINATED);
    return std::nullopt;
}

} // namespace vemira::pulse
