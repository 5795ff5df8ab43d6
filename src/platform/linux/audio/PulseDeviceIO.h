#pragma once

#include "audio/AudioDeviceIO.h"
#include "platform/linux/audio/PulseAudioSystem.h"

namespace vemira::pulse {

// Opens PulseEngines on the devices of PulseAudioSystem's table. Main thread only.
class PulseDeviceIO final : public AudioDeviceIO {
public:
    Result<std::unique_ptr<AudioEngine>> open(const AudioEngineRequest& request) override;

private:
    PulseAudioSystem m_system; // for looking devices up by id
};

} // namespace vemira::pulse
