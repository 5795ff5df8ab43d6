#include "platform/linux/audio/PulseDeviceIO.h"

#include "platform/linux/audio/PulseEngine.h"

#include <pulse/error.h>

namespace vemira::pulse {

Result<std::unique_ptr<AudioEngine>> PulseDeviceIO::open(const AudioEngineRequest& request)
{
    int status = -PA_ERR_UNKNOWN;
    const std::optional<DeviceTable> table = m_system.table(&status);
    if (!table)
        return selectFailure(status);

    PulseEngine::Plan plan;
    plan.conversationOnComputer = request.conversationOnComputer;
    plan.blockFrames = request.blockFrames;
    if (request.inputDeviceID) {
        const DeviceEntry* entry = table->find(*request.inputDeviceID);
        if (!entry || !entry->capture)
            return deviceUnavailable();
        plan.capture = entry->capture;
    }
    if (request.outputDeviceID) {
        const DeviceEntry* entry = table->find(*request.outputDeviceID);
        if (!entry || !entry->playback)
            return deviceUnavailable();
        plan.playback = entry->playback;
    }
    std::unique_ptr<PulseEngine> engine = PulseEngine::open(plan, &status);
    if (!engine)
        return selectFailure(status);
    return std::unique_ptr<AudioEngine>(std::move(engine));
}

} // namespace vemira::pulse

namespace vemira {

std::unique_ptr<AudioSystem> createPlatformAudioSystem()
{
    return std::make_unique<pulse::PulseAudioSystem>();
}

std::unique_ptr<AudioDeviceIO> createPlatformAudioDeviceIO()
{
    return std::make_unique<pulse::PulseDeviceIO>();
}

} // namespace vemira
