// Capture and playback on Core Audio devices through I/O audio units: one AUHAL unit per
// direction on a chosen device, or, for a conversation on the Mac, one voice-processing unit
// (echo cancellation and automatic gain) on the system defaults.
//
// Threads: AudioEngine methods on the main thread; the input and render callbacks on Core
// Audio's I/O threads; device listeners on a private serial queue, which only clear the
// running flags and stop the unit.
#include "audio/AudioDeviceIO.h"
#include "platform/macos/audio/CoreAudioProperties.h"

#include <AudioToolbox/AudioToolbox.h>
#include <Block.h>
#include <CoreAudio/CoreAudio.h>
#include <atomic>
#include <dispatch/dispatch.h>
#include <vector>

namespace vemira {

namespace {

constexpr AudioUnitElement kOutputBus = 0;
constexpr AudioUnitElement kInputBus = 1;

AppError startFailure(OSStatus status)
{
    return AppError::withStatus(QStringLiteral("Le son du Mac n’a pas pu démarrer"), status);
}

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
        DeviceFormat format;
        std::atomic<bool> running{false};
    };

    ~CoreAudioEngine() override
    {
        stopCapture();
        stopPlayback();
        removeListeners();
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
        if (m_queue)
            dispatch_release(m_queue);
    }

    static Result<std::unique_ptr<AudioEngine>> open(const AudioEngineRequest& request);

    bool hasCapture() const override { return m_capture.unit != nullptr; }
    bool hasPlayback() const override { return m_playback.unit != nullptr; }
    bool isDuplex() const override { return m_shared != nullptr; }
    DeviceFormat captureFormat() const override
    {
        return m_capture.unit
                   ? coreaudio::deviceFormat(m_capture.device, kAudioObjectPropertyScopeInput)
                   : DeviceFormat{};
    }
    DeviceFormat playbackFormat() const override
    {
        return m_playback.unit
                   ? coreaudio::deviceFormat(m_playback.device, kAudioObjectPropertyScopeOutput)
                   : DeviceFormat{};
    }
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
                return startFailure(status);
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

    // The device went away or changed its format: the unit is stopped and the owner told
    // through the running flags; the formats then say whether a plain restart will do.
    void watch(AudioObjectID device)
    {
        if (!m_queue)
            m_queue = dispatch_queue_create("vemira.audio.devices", DISPATCH_QUEUE_SERIAL);
        for (AudioObjectPropertySelector selector :
             {kAudioDevicePropertyDeviceIsAlive, kAudioDevicePropertyNominalSampleRate,
              kAudioDevicePropertyStreamConfiguration}) {
            const AudioObjectPropertyAddress address{selector, kAudioObjectPropertyScopeWildcard,
                                                     kAudioObjectPropertyElementWildcard};
            AudioObjectPropertyListenerBlock block = ^(UInt32, const AudioObjectPropertyAddress*) {
              for (Side* side : {&m_capture, &m_playback}) {
                  if (side->device == device && side->running.exchange(false))
                      AudioOutputUnitStop(side->unit);
              }
            };
            if (AudioObjectAddPropertyListenerBlock(device, &address, m_queue, block) == noErr)
                m_listeners.push_back({device, address, Block_copy(block)});
        }
    }

    void removeListeners()
    {
        for (Listener& listener : m_listeners) {
            AudioObjectRemovePropertyListenerBlock(listener.device, &listener.address, m_queue,
                                                   listener.block);
            Block_release(listener.block);
        }
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

Status CoreAudioEngine::prepareCapture(AudioUnit unit, AudioObjectID device, bool select)
{
    const UInt32 on = 1;
    OSStatus status = AudioUnitSetProperty(unit, kAudioOutputUnitProperty_EnableIO,
                                           kAudioUnitScope_Input, kInputBus, &on, sizeof(on));
    if (status != noErr)
        return AudioDeviceIO::selectFailure(status);
    if (select) {
        const UInt32 off = 0;
        AudioUnitSetProperty(unit, kAudioOutputUnitProperty_EnableIO, kAudioUnitScope_Output,
                             kOutputBus, &off, sizeof(off));
        status = AudioUnitSetProperty(unit, kAudioOutputUnitProperty_CurrentDevice,
                                      kAudioUnitScope_Global, 0, &device, sizeof(device));
        if (status != noErr)
            return AudioDeviceIO::selectFailure(status);
    }
    m_capture.unit = unit;
    m_capture.device = device;
    m_capture.format = coreaudio::deviceFormat(device, kAudioObjectPropertyScopeInput);
    if (!m_capture.format.isUsable())
        return AudioDeviceIO::deviceUnavailable();
    m_captureChannels = m_capture.format.channels;
    m_captureBuffer.assign(std::size_t(maxBlockFrames) * std::size_t(m_captureChannels), 0.0f);
    // What the unit hands us on its output scope of the input bus: the device's own format.
    const AudioStreamBasicDescription format = floatFormat(m_capture.format);
    status = AudioUnitSetProperty(unit, kAudioUnitProperty_StreamFormat, kAudioUnitScope_Output,
                                  kInputBus, &format, sizeof(format));
    if (status != noErr)
        return AudioDeviceIO::selectFailure(status);
    const AURenderCallbackStruct callback{&CoreAudioEngine::onInput, this};
    status = AudioUnitSetProperty(unit, kAudioOutputUnitProperty_SetInputCallback,
                                  kAudioUnitScope_Global, 0, &callback, sizeof(callback));
    return status == noErr ? Status() : AudioDeviceIO::selectFailure(status);
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
    m_playback.format = coreaudio::deviceFormat(device, kAudioObjectPropertyScopeOutput);
    if (!m_playback.format.isUsable())
        return AudioDeviceIO::deviceUnavailable();
    m_playbackChannels = m_playback.format.channels;
    const AudioStreamBasicDescription format = floatFormat(m_playback.format);
    status = AudioUnitSetProperty(unit, kAudioUnitProperty_StreamFormat, kAudioUnitScope_Input,
                                  kOutputBus, &format, sizeof(format));
    if (status != noErr)
        return AudioDeviceIO::selectFailure(status);
    const AURenderCallbackStruct callback{&CoreAudioEngine::onRender, this};
    status = AudioUnitSetProperty(unit, kAudioUnitProperty_SetRenderCallback, kAudioUnitScope_Input,
                                  kOutputBus, &callback, sizeof(callback));
    return status == noErr ? Status() : AudioDeviceIO::selectFailure(status);
}

class CoreAudioDeviceIO final : public AudioDeviceIO {
public:
    Result<std::unique_ptr<AudioEngine>> open(const AudioEngineRequest& request) override
    {
        auto engine = std::make_unique<CoreAudioEngine>();
        const UInt32 maxFrames = UInt32(AudioEngine::maxBlockFrames);
        if (request.conversationOnComputer && request.inputDeviceID && request.outputDeviceID) {
            // Voice processing works on the system defaults, which the caller has set.
            if (Status failed = CoreAudioEngine::makeUnit(kAudioUnitSubType_VoiceProcessingIO,
                                                          &engine->m_shared))
                return *failed;
            const UInt32 off = 0, on = 1;
            OSStatus status =
                AudioUnitSetProperty(engine->m_shared, kAUVoiceIOProperty_BypassVoiceProcessing,
                                     kAudioUnitScope_Global, kInputBus, &off, sizeof(off));
            if (status == noErr)
                status = AudioUnitSetProperty(engine->m_shared, kAUVoiceIOProperty_MuteOutput,
                                              kAudioUnitScope_Global, kInputBus, &off, sizeof(off));
            if (status == noErr)
                status = AudioUnitSetProperty(engine->m_shared,
                                              kAUVoiceIOProperty_VoiceProcessingEnableAGC,
                                              kAudioUnitScope_Global, kInputBus, &on, sizeof(on));
            if (status != noErr)
                return AppError::withStatus(
                    QStringLiteral("Impossible d’activer l’annulation d’écho du Mac"), status);
            if (Status failed =
                    engine->prepareCapture(engine->m_shared, *request.inputDeviceID, false))
                return *failed;
            if (Status failed =
                    engine->preparePlayback(engine->m_shared, *request.outputDeviceID, false))
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
                return AudioDeviceIO::selectFailure(status);
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
