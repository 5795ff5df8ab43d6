#include "audio/MacAudioRoute.h"

#include "audio/AudioSystem.h"

namespace vemira {

MacAudioRoute::MacAudioRoute(AudioSystem& system)
    : MacAudioRoute([&system](std::uint32_t selector) { return system.readDefault(selector); },
                    [&system](std::uint32_t selector, std::uint32_t id) {
                        return system.writeDefault(selector, id);
                    },
                    [&system](std::uint32_t id) { return system.transportType(id); })
{}

MacAudioRoute::MacAudioRoute(Read read, Write write, Transport transport)
    : m_read(std::move(read)), m_write(std::move(write)), m_transport(std::move(transport))
{}

Status MacAudioRoute::prepare(std::uint32_t inputID, std::uint32_t outputID)
{
    // The first caller's choice stands until restore().
    if (!m_previous.isEmpty())
        return std::nullopt;
    const std::pair<std::uint32_t, std::uint32_t> wanted[] = {
        {AudioSelector::defaultInput, inputID}, {AudioSelector::defaultOutput, outputID}};
    for (const auto& [selector, id] : wanted) {
        const Result<std::uint32_t> current = m_read(selector);
        if (!current) {
            restore();
            return current.error();
        }
        if (current.value() == id)
            continue;
        if (Status failed = m_write(selector, id)) {
            restore();
            return failed;
        }
        m_previous.append(Change{selector, current.value(), id});
    }
    return std::nullopt;
}

Status MacAudioRoute::prepare(const QList<SoundDevice>& devices)
{
    return prepareBuiltIn(devices, m_transport);
}

Status MacAudioRoute::prepare(const QList<SoundDevice>& devices, const AudioSystem& system)
{
    return prepareBuiltIn(devices,
                          [&system](std::uint32_t id) { return system.transportType(id); });
}

Status MacAudioRoute::prepareBuiltIn(const QList<SoundDevice>& devices,
                                     const Transport& transportOf)
{
    if (!m_previous.isEmpty())
        return std::nullopt;
    auto builtIn = [&transportOf](const SoundDevice& device) {
        if (!transportOf)
            return false;
        const auto transport = transportOf(device.id);
        return transport && *transport == AudioTransport::builtIn;
    };
    const SoundDevice* input = nullptr;
    const SoundDevice* output = nullptr;
    for (const SoundDevice& device : devices) {
        if (!input && device.input && builtIn(device))
            input = &device;
        if (!output && device.output && builtIn(device))
            output = &device;
    }
    if (!input || !output)
        return AppError(builtInMissingMessage());
    return prepare(input->id, output->id);
}

void MacAudioRoute::restore()
{
    // Put back only what still shows our change: a default chosen since by the user or another
    // program is theirs.
    for (auto it = m_previous.crbegin(); it != m_previous.crend(); ++it) {
        const Result<std::uint32_t> current = m_read(it->selector);
        if (current && current.value() == it->applied)
            m_write(it->selector, it->before);
    }
    m_previous.clear();
}

} // namespace vemira
