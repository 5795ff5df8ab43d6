// Capture and playback on Core Audio devices through I/O audio units: one AUHAL unit per
// direction on a chosen device, or, for a conversation on the Mac, one voice-processing unit
// (echo cancellation and automatic gain) on the system defaults.
//
// Threads: AudioEngine methods on the main thread; the input and render callbacks on Core
// Audio's I/O threads; device listeners on a private serial queue, which only compare the
// device with what was opened, clear the running flags and stop the unit.
//
// Built with ARC: the listener blocks and the queue are Objective-C objects owned by the engine.
#include "audio/AudioDeviceIO.h"
#include "audio/CoreAudioRules.h"
#include "platform/macos/audio/CoreAudioProperties.h"

#include <AudioToolbox/AudioToolbox.h>
#include <CoreAudio/CoreAudio.h>
#include <atomic>
#include <dispatch/dispatch.h>
#include <vector>

namespace vemira {

namespace {

constexpr AudioUnitElement kOutputBus = 0;
constexpr AudioUnitElement kInputBus = 1;

AudioStreamBasicDescription floatFormat(const DeviceFormat& format)
{
    AudioStreamBasicDescription description{};
    description.mSampleRate = format.sampleRate;
    description.mFormatID = kAudioFormatLinearPCM;
    description.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
    description.mChannelsPerFrame = UInt32(format.channels);
    description.mBitsPerChannel = 32;
    description.mFramesPerPacket = 1;
    description.mBytesPerFrame = UInt32(4 * format.channels);
    description.mBytesPerPacket = description.mBytesPerFrame;
    return description;
}

class CoreAudioEngine final : public AudioEngine {
public:
    struct Side {
        AudioUnit unit = nullptr;
        AudioObjectID device = kAudioObjectUnknown;
        AudioObjectPropertyScope scope = kAudioObjectPropertyScopeGlobal;
        DeviceFormat format; // what the unit hands us or takes from us
        DeviceFormat opened; // the device's own format when the unit was set up
        std::atomic<bool> running{false};
    };

    ~CoreAudioEngine() override
    {
        // First: once removed and drained, no listener block can reach this engine.
        removeListeners();
        stopCapture();
        stopPlayback();
        for (AudioUnit unit : {m_capture.unit, m_playback.unit}) {
            if (unit && unit != m_shared) {
                AudioUnitUninitialize(unit);
                AudioComponentInstanceDispose(unit);
            }
        }
        if (m_shared) {
            AudioUnitUninitialize(m_shared);
            AudioComponentInstanceDispose(m_shared);
        }
    }

    static Result<std::unique_ptr<AudioEngine>> open(const AudioEngineRequest& request);

    bool hasCapture() const override { return m_capture.unit != nullptr; }
    bool hasPlayback() const override { return m_playback.unit != nullptr; }
    bool isDuplex() const override { return m_shared != nullptr; }
    // The device's current format as the unit would deliver it now.
    DeviceFormat captureFormat() const override { return clientFormat(m_capture); }
    DeviceFormat playbackFormat() const override { return clientFormat(m_playback); }
    void setCaptureCallback(CaptureCallback callback) override
    {
        m_captureCallback = std::move(callback);
    }
    void setRenderCallback(RenderCallback callback) override
    {
        m_renderCallback = std::move(callback);
    }
    Status startCapture() override { return start(m_capture); }
    Status startPlayback() override { return start(m_playback); }
    void stopCapture() override { stop(m_capture); }
    void stopPlayback() override { stop(m_playback); }
    bool captureRunning() const override { return m_capture.running.load(); }
    bool playbackRunning() const override { return m_playback.running.load(); }

private:
    Status start(Side& side)
    {
        if (!side.unit)
            return AudioDeviceIO::deviceUnavailable();
        if (side.running.load())
            return std::nullopt;
        // A shared voice-processing unit runs both ways at once.
        Side& other = &side == &m_capture ? m_playback : m_capture;
        if (!(m_shared && other.running.load())) {
            const OSStatus status = AudioOutputUnitStart(side.unit);
            if (status != noErr)
                return coreaudio::startFailure(status);
        }
        side.running.store(true);
        if (m_shared)
            other.running.store(true);
        return std::nullopt;
    }

    void stop(Side& side)
    {
        if (!side.unit)
            return;
        // Returns once the I/O thread has left our callbacks.
        AudioOutputUnitStop(side.unit);
        side.running.store(false);
        if (m_shared)
            (&side == &m_capture ? m_playback : m_capture).running.store(false);
    }

    static OSStatus onInput(void* self, AudioUnitRenderActionFlags* flags,
                            const AudioTimeStamp* time, UInt32 bus, UInt32 frames, AudioBufferList*)
    {
        auto* engine = static_cast<CoreAudioEngine*>(self);
        const int channels = engine->m_captureChannels;
        if (frames > UInt32(maxBlockFrames) || channels <= 0)
            return noErr;
        AudioBufferList list;
        list.mNumberBuffers = 1;
        list.mBuffers[0].mNumberChannels = UInt32(channels);
        list.mBuffers[0].mDataByteSize = frames * UInt32(channels) * 4;
        list.mBuffers[0].mData = engine->m_captureBuffer.data();
        const OSStatus status =
            AudioUnitRender(engine->m_capture.unit, flags, time, bus, frames, &list);
        if (status == noErr && engine->m_captureCallback)
            engine->m_captureCallback(engine->m_captureBuffer.data(), int(frames));
        return status;
    }

    static OSStatus onRender(void* self, AudioUnitRenderActionFlags*, const AudioTimeStamp*, UInt32,
                             UInt32 frames, AudioBufferList* data)
    {
        auto* engine = static_cast<CoreAudioEngine*>(self);
        auto* samples = static_cast<float*>(data->mBuffers[0].mData);
        const int channels = engine->m_playbackChannels;
        if (engine->m_renderCallback && frames <= UInt32(maxBlockFrames))
            engine->m_renderCallback(samples, int(frames));
        else
            std::fill(samples, samples + std::size_t(frames) * std::size_t(channels), 0.0f);
        return noErr;
    }

    DeviceFormat clientFormat(const Side& side) const
    {
        if (!side.unit)
            return {};
        const DeviceFormat device = coreaudio::deviceFormat(side.device, side.scope);
        return m_shared ? coreaudio::voiceProcessingFormat(device) : device;
    }

    // The device went away or changed its format: the unit is stopped and the owner told
    // through the running flags; the formats then say whether a plain restart will do.
    void watch(AudioObjectID device)
    {
        if (!m_queue)
            m_queue = dispatch_queue_create("vemira.audio.devices", DISPATCH_QUEUE_SERIAL);
        for (AudioObjectPropertySelector selector :
             {AudioObjectPropertySelector(kAudioDevicePropertyDeviceIsAlive),
              AudioObjectPropertySelector(kAudioDevicePropertyNominalSampleRate),
              AudioObjectPropertySelector(kAudioDevicePropertyStreamConfiguration)}) {
            const AudioObjectPropertyAddress address{selector, kAudioObjectPropertyScopeWildcard,
                                                     kAudioObjectPropertyElementWildcard};
            // One block object, kept: removal only matches the very block that was added.
            AudioObjectPropertyListenerBlock block = ^(UInt32, const AudioObjectPropertyAddress*) {
              deviceNotified(device);
            };
            if (AudioObjectAddPropertyListenerBlock(device, &address, m_queue, block) == noErr)
                m_listeners.push_back({device, address, block});
        }
    }

    // On the listener queue.
    void deviceNotified(AudioObjectID device)
    {
        for (Side* side : {&m_capture, &m_playback}) {
            if (side->device != device || !side->unit)
                continue;
            const coreaudio::DeviceState now{coreaudio::isAlive(device),
                                             coreaudio::deviceFormat(device, side->scope)};
            if (!coreaudio::deviceChanged({true, side->opened}, now))
                continue;
            if (side->running.exchange(false))
                AudioOutputUnitStop(side->unit);
            if (m_shared) // one unit both ways
                (side == &m_capture ? m_playback : m_capture).running.store(false);
        }
    }

    void removeListeners()
    {
        for (const Listener& listener : m_listeners)
            AudioObjectRemovePropertyListenerBlock(listener.device, &listener.address, m_queue,
                                                   listener.block);
        m_listeners.clear();
        if (m_queue)
            dispatch_sync(m_queue, ^{
                          }); // a listener already queued has run
    }

    struct Listener {
        AudioObjectID device;
        AudioObjectPropertyAddress address;
        AudioObjectPropertyListenerBlock block;
    };

    Side m_capture;
    Side m_playback;
    AudioUnit m_shared = nullptr; // the voice-processing unit, both ways
    int m_captureChannels = 0;
    int m_playbackChannels = 0;
    std::vector<float> m_captureBuffer;
    CaptureCallback m_captureCallback;
    RenderCallback m_renderCallback;
    dispatch_queue_t m_queue = nullptr;
    std::vector<Listener> m_listeners;

    friend class CoreAudioDeviceIO;
    static Status makeUnit(OSType subtype, AudioUnit* unit);
    Status prepareCapture(AudioUnit unit, AudioObjectID device, bool select);
    Status preparePlayback(AudioUnit unit, AudioObjectID device, bool select);
    Status prepareVoiceProcessing(AudioObjectID input, AudioObjectID output);
};

Status CoreAudioEngine::makeUnit(OSType subtype, AudioUnit* unit)
{
    AudioComponentDescription description{};
    description.componentType = kAudioUnitType_Output;
    description.componentSubType = subtype;
    description.componentManufacturer = kAudioUnitManufacturer_Apple;
    AudioComponent component = AudioComponentFindNext(nullptr, &description);
    if (!component || AudioComponentInstanceNew(component, unit) != noErr || !*unit)
        return AudioDeviceIO::deviceUnavailable();
    return std::nullopt;
}

// `select`: an AUHAL unit, on which input is switched on, output off and the device chosen.
// Otherwise the voice-processing unit, which runs both ways on the system defaults already.
Status CoreAudioEngine::prepareCapture(AudioUnit unit, AudioObjectID device, bool select)
{
    OSStatus status = noErr;
    if (select) {
        const UInt32 on = 1, off = 0;
        status = AudioUnitSetProperty(unit, kAudioOutputUnitProperty_EnableIO,
                                      kAudioUnitScope_Input, kInputBus, &on, sizeof(on));
        if (status != noErr)
            return AudioDeviceIO::selectFailure(status);
        AudioUnitSetProperty(unit, kAudioOutputUnitProperty_EnableIO, kAudioUnitScope_Output,
                             kOutputBus, &off, sizeof(off));
        status = AudioUnitSetProperty(unit, kAudioOutputUnitProperty_CurrentDevice,
                                      kAudioUnitScope_Global, 0, &device, sizeof(device));
        if (status != noErr)
            return AudioDeviceIO::selectFailure(status);
    }
    m_capture.unit = unit;
    m_capture.device = device;
    m_capture.scope = kAudioObjectPropertyScopeInput;
    m_capture.opened = coreaudio::deviceFormat(device, kAudioObjectPropertyScopeInput);
    m_capture.format =
        select ? m_capture.opened : coreaudio::voiceProcessingFormat(m_capture.opened);
    if (!m_capture.format.isUsable())
        return AudioDeviceIO::deviceUnavailable();
    m_captureChannels = m_capture.format.channels;
    m_captureBuffer.assign(std::size_t(maxBlockFrames) * std::size_t(m_captureChannels), 0.0f);
    // What the unit hands us on the output scope of the input bus.
    const AudioStreamBasicDescription format = floatFormat(m_capture.format);
    status = AudioUnitSetProperty(unit, kAudioUnitProperty_StreamFormat, kAudioUnitScope_Output,
                                  kInputBus, &format, sizeof(format));
    if (status != noErr)
        return select ? AudioDeviceIO::selectFailure(status) : coreaudio::echoFailure(status);
    const AURenderCallbackStruct callback{&CoreAudioEngine::onInput, this};
    status = AudioUnitSetProperty(unit, kAudioOutputUnitProperty_SetInputCallback,
                                  kAudioUnitScope_Global, 0, &callback, sizeof(callback));
    if (status == noErr)
        return std::nullopt;
    return select ? AudioDeviceIO::selectFailure(status) : coreaudio::echoFailure(status);
}

Status CoreAudioEngine::preparePlayback(AudioUnit unit, AudioObjectID device, bool select)
{
    OSStatus status = noErr;
    if (select) {
        status = AudioUnitSetProperty(unit, kAudioOutputUnitProperty_CurrentDevice,
                                      kAudioUnitScope_Global, 0, &device, sizeof(device));
        if (status != noErr)
            return AudioDeviceIO::selectFailure(status);
    }
    m_playback.unit = unit;
    m_playback.device = device;
    m_playback.scope = kAudioObjectPropertyScopeOutput;
    m_playback.opened = coreaudio::deviceFormat(device, kAudioObjectPropertyScopeOutput);
    m_playback.format =
        select ? m_playback.opened : coreaudio::voiceProcessingFormat(m_playback.opened);
    if (!m_playback.format.isUsable())
        return AudioDeviceIO::deviceUnavailable();
    m_playbackChannels = m_playback.format.channels;
    const AudioStreamBasicDescription format = floatFormat(m_playback.format);
    status = AudioUnitSetProperty(unit, kAudioUnitProperty_StreamFormat, kAudioUnitScope_Input,
                                  kOutputBus, &format, sizeof(format));
    if (status != noErr)
        return select ? AudioDeviceIO::selectFailure(status) : coreaudio::echoFailure(status);
    const AURenderCallbackStruct callback{&CoreAudioEngine::onRender, this};
    status = AudioUnitSetProperty(unit, kAudioUnitProperty_SetRenderCallback, kAudioUnitScope_Input,
                                  kOutputBus, &callback, sizeof(callback));
    if (status == noErr)
        return std::nullopt;
    return select ? AudioDeviceIO::selectFailure(status) : coreaudio::echoFailure(status);
}

// On macOS the voice-processing unit runs both ways on the system defaults, input and output
// on by default. What we ask beyond that is optional: a setting this macOS does not take
// leaves the unit's default, which is already what we want, and the conversation goes on.
Status CoreAudioEngine::prepareVoiceProcessing(AudioObjectID input, AudioObjectID output)
{
    if (Status failed = makeUnit(kAudioUnitSubType_VoiceProcessingIO, &m_shared))
        return failed;
    struct Setting {
        AudioUnitPropertyID property;
        AudioUnitScope scope;
        AudioUnitElement element;
        UInt32 value;
    };
    const Setting settings[] = {
        {kAudioOutputUnitProperty_EnableIO, kAudioUnitScope_Input, kInputBus, 1},
        {kAUVoiceIOProperty_BypassVoiceProcessing, kAudioUnitScope_Global, 0, 0},
        {kAUVoiceIOProperty_VoiceProcessingEnableAGC, kAudioUnitScope_Global, 0, 1},
        {kAUVoiceIOProperty_MuteOutput, kAudioUnitScope_Global, 0, 0},
    };
    for (const Setting& setting : settings) {
        const OSStatus status =
            AudioUnitSetProperty(m_shared, setting.property, setting.scope, setting.element,
                                 &setting.value, sizeof(setting.value));
        if (status != noErr && !coreaudio::isRefusedSetting(status))
            return coreaudio::echoFailure(status);
    }
    // The unit lowers every other sound of the Mac while it runs (the manager listening to the
    // call through the same Mac): ask for the least it allows.
    if (@available(macOS 14.0, *)) {
        const AUVoiceIOOtherAudioDuckingConfiguration ducking{false,
                                                              kAUVoiceIOOtherAudioDuckingLevelMin};
        const OSStatus status =
            AudioUnitSetProperty(m_shared, kAUVoiceIOProperty_OtherAudioDuckingConfiguration,
                                 kAudioUnitScope_Global, 0, &ducking, sizeof(ducking));
        if (status != noErr && !coreaudio::isRefusedSetting(status))
            return coreaudio::echoFailure(status);
    }
    if (Status failed = prepareCapture(m_shared, input, false))
        return failed;
    return preparePlayback(m_shared, output, false);
}

class CoreAudioDeviceIO final : public AudioDeviceIO {
public:
    Result<std::unique_ptr<AudioEngine>> open(const AudioEngineRequest& request) override
    {
        auto engine = std::make_unique<CoreAudioEngine>();
        const UInt32 maxFrames = UInt32(AudioEngine::maxBlockFrames);
        if (request.conversationOnComputer && request.inputDeviceID && request.outputDeviceID) {
            // Voice processing works on the system defaults, which the caller has set.
            if (Status failed =
                    engine->prepareVoiceProcessing(*request.inputDeviceID, *request.outputDeviceID))
                return *failed;
        } else {
            if (request.inputDeviceID) {
                AudioUnit unit = nullptr;
                if (Status failed = CoreAudioEngine::makeUnit(kAudioUnitSubType_HALOutput, &unit))
                    return *failed;
                engine->m_capture.unit = unit; // disposed with the engine from here on
                if (Status failed = engine->prepareCapture(unit, *request.inputDeviceID, true))
                    return *failed;
            }
            if (request.outputDeviceID) {
                AudioUnit unit = nullptr;
                if (Status failed = CoreAudioEngine::makeUnit(kAudioUnitSubType_HALOutput, &unit))
                    return *failed;
                engine->m_playback.unit = unit;
                if (Status failed = engine->preparePlayback(unit, *request.outputDeviceID, true))
                    return *failed;
            }
        }
        for (AudioUnit unit : {engine->m_capture.unit, engine->m_playback.unit}) {
            if (!unit || unit == engine->m_shared)
                continue;
            AudioUnitSetProperty(unit, kAudioUnitProperty_MaximumFramesPerSlice,
                                 kAudioUnitScope_Global, 0, &maxFrames, sizeof(maxFrames));
            const OSStatus status = AudioUnitInitialize(unit);
            if (status != noErr)
                return AudioDeviceIO::selectFailure(status);
        }
        if (engine->m_shared) {
            AudioUnitSetProperty(engine->m_shared, kAudioUnitProperty_MaximumFramesPerSlice,
                                 kAudioUnitScope_Global, 0, &maxFrames, sizeof(maxFrames));
            const OSStatus status = AudioUnitInitialize(engine->m_shared);
            if (status != noErr)
                return coreaudio::echoFailure(status);
        }
        if (engine->m_capture.unit)
            engine->watch(engine->m_capture.device);
        if (engine->m_playback.unit && engine->m_playback.device != engine->m_capture.device)
            engine->watch(engine->m_playback.device);
        return std::unique_ptr<AudioEngine>(std::move(engine));
    }
};

} // namespace

std::unique_ptr<AudioDeviceIO> createPlatformAudioDeviceIO()
{
    return std::make_unique<CoreAudioDeviceIO>();
}

} // namespace vemira
