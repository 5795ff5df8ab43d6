#include "audio/AudioBridge.h"

#include "audio/AudioSystem.h"
#include "audio/CallAudioRecorder.h"
#include "audio/MicrophoneLimiter.h"
#include "audio/Players.h"
#include "audio/VoiceOutputChain.h"
#include "core/Clock.h"
#include "core/PlatformWording.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <new>

namespace vemira {

namespace {

const QString kCaptureFormatUnusable = QStringLiteral("Format du microphone incompatible.");
const QString kOutputFormatUnusable =
    QStringLiteral("Le périphérique de sortie ne fournit pas de format audio utilisable.");
const QString kNoOutputConverter =
    QStringLiteral("Impossible de préparer le son envoyé au téléphone.");
const QString kInterventionNeedsAudio =
    QStringLiteral("Le son de l’appel doit fonctionner avant d’intervenir.");

// Longest stretch the render path asks of the players at 24 kHz in one go.
constexpr int kVoiceScratchFrames = 4096;

} // namespace

// Capture thread state, built by start() and left alone by the main thread while running.
struct AudioBridge::CapturePath {
    DeviceFormat source;
    bool macMode = false;
    std::unique_ptr<InputAudioConversion> converter;
    MicrophoneLimiter limiter;
    std::vector<float> converted;
    std::shared_ptr<CallAudioRecorder> recorder;
    PCMCallback onPCM;
};

// Playback thread state, likewise.
struct AudioBridge::RenderPath {
    DeviceFormat mixer;
    std::unique_ptr<Resampler> toDevice; // 24 kHz voice → mixer rate
    std::unique_ptr<Resampler> toWire;   // mixer output → 24 kHz, for the measure
    std::vector<float> voice;            // 24 kHz scratch
    std::vector<float> mono;             // one mixer-rate channel
    std::vector<float> measureBlock;     // channel 0 of the mixer output, 2048 frames a block
    int measureFrames = 0;
    std::vector<float> measured; // 24 kHz
    QByteArray wire;             // preallocated wire block for the recorder
    std::shared_ptr<CallAudioRecorder> recorder;
};

AudioBridge::AudioBridge(AudioDeviceIO& io, AudioSystem& system, const Clock& clock)
    : AudioBridge(io, system, AudioFlowHealth::TimeSource([&clock] { return clock.uptime(); }))
{}

AudioBridge::AudioBridge(AudioDeviceIO& io, AudioSystem& system, AudioFlowHealth::TimeSource clock)
    : m_io(io), m_system(system), m_clock(std::move(clock)),
      m_operatorFeed(std::make_unique<FeedPlayer>()),
      m_toManagerFeed(std::make_unique<FeedPlayer>()), m_interventionRoute(system),
      m_health(m_clock)
{
    m_player = std::make_unique<BufferPlayer>(
        [health = &m_health](std::int64_t generation) { health->played(generation); });
}

AudioBridge::~AudioBridge()
{
    stop();
    // The engine's threads are gone once it is destroyed; only then may the paths go.
    m_engine.reset();
}

bool AudioBridge::captureRunning() const
{
    return m_engine && m_engine->captureRunning();
}

bool AudioBridge::playbackRunning() const
{
    return m_engine && m_engine->playbackRunning();
}

void AudioBridge::setVoiceEQ(const VoiceEQSettings& settings)
{
    m_voiceEQ = settings;
    if (m_voiceOutput)
        m_voiceOutput->apply(m_voiceEQ);
}

QString AudioBridge::routeText(const QList<SoundDevice>& devices, std::uint32_t inputID,
                               std::uint32_t outputID, const DeviceFormat& source)
{
    auto nameOf = [&devices](std::uint32_t id) {
        for (const SoundDevice& device : devices)
            if (device.id == id)
                return device.name;
        return QString::number(id);
    };
    return QStringLiteral("entrée : ") + nameOf(inputID) + QStringLiteral(" / sortie : ") +
           nameOf(outputID) + QStringLiteral(" · source : ") + QString::number(source.channels) +
           QStringLiteral(" canaux, ") + QString::number(std::llround(source.sampleRate)) +
           QStringLiteral(" Hz");
}

Status AudioBridge::checkSystemDefaults(std::uint32_t inputID, std::uint32_t outputID)
{
    const QList<SoundDevice> devices = m_system.devices();
    auto listed = [&devices](std::uint32_t id, bool input) {
        return std::any_of(devices.begin(), devices.end(), [&](const SoundDevice& d) {
            return d.id == id && (input ? d.input : d.output);
        });
    };
    const Result<std::uint32_t> in = m_system.readDefault(AudioSelector::defaultInput);
    if (!in || in.value() != inputID || !listed(in.value(), true))
        return AppError(PlatformWording::current().defaultsChanged);
    const Result<std::uint32_t> out = m_system.readDefault(AudioSelector::defaultOutput);
    if (!out || out.value() != outputID || !listed(out.value(), false))
        return AppError(PlatformWording::current().defaultsChanged);
    return std::nullopt;
}

Status AudioBridge::start(std::uint32_t inputID, std::uint32_t outputID, bool conversationOnMac)
{
    stop();
    m_health.reset();

    // Fresh engine and players: the previous ones are stopped, so their threads are gone.
    m_engine.reset();
    m_capturePath.reset();
    m_renderPath.reset();
    m_voiceOutput.reset();
    m_player = std::make_unique<BufferPlayer>(
        [health = &m_health](std::int64_t generation) { health->played(generation); });
    m_captureFormat.reset();
    m_mixerFormat.reset();

    if (conversationOnMac) {
        // The route has made these the system defaults; anything else means the user or
        // another program changed them since, and the echo canceller would listen to the
        // wrong pair.
        if (Status failed = checkSystemDefaults(inputID, outputID))
            return failed;
    }
    Result<std::unique_ptr<AudioEngine>> opened =
        m_io.open(AudioEngineRequest{inputID, outputID, conversationOnMac, kBlockFrames});
    if (!opened)
        return opened.error();
    m_engine = std::move(opened).value();

    auto capture = std::make_unique<CapturePath>();
    capture->source = m_engine->captureFormat();
    capture->macMode = conversationOnMac;
    capture->converter =
        InputAudioConversion::make(capture->source, conversationOnMac ? playFormat : wireFormat);
    if (!capture->converter)
        return AppError(kCaptureFormatUnusable);
    capture->converted.resize(std::size_t(capture->converter->maxOutput(kBlockFrames)));

    const DeviceFormat mixer = m_engine->playbackFormat();
    if (!mixer.isUsable())
        return AppError(kOutputFormatUnusable);
    auto render = std::make_unique<RenderPath>();
    render->mixer = mixer;
    render->toDevice = Resampler::make(kWireRate, mixer.sampleRate);
    if (!render->toDevice)
        return AppError(kOutputFormatUnusable);

    m_voiceOutput = std::make_unique<VoiceOutputChain>(kWireRate);
    m_voiceOutput->apply(VoiceEQSettings{});
    m_voiceOutput->setHeadroomVolume(VoiceOutputChain::kHeadroomVolume);
    m_voiceOutput->apply(m_voiceEQ);

    m_routeDescription = routeText(m_system.devices(), inputID, outputID, capture->source);

    render->toWire = Resampler::make(mixer.sampleRate, kWireRate);
    if (!render->toWire)
        return AppError(kNoOutputConverter);
    render->voice.resize(kVoiceScratchFrames);
    render->mono.resize(kBlockFrames);
    render->measureBlock.resize(kBlockFrames);
    render->measured.resize(std::size_t(render->toWire->maxOutput(kBlockFrames)));
    render->wire = QByteArray(qsizetype(render->measured.size()) * 2, Qt::Uninitialized);

    m_captureFormat = capture->source;
    m_mixerFormat = mixer;

    capture->recorder = m_recorder;
    capture->onPCM = onPCM;
    render->recorder = m_recorder;
    m_capturePath = std::move(capture);
    m_renderPath = std::move(render);
    m_engine->setCaptureCallback([this](const float* in, int frames) { onCapture(in, frames); });
    m_tapped = true;
    m_engine->setRenderCallback([this](float* out, int frames) { onRender(out, frames); });
    m_outputTapped = true;

    if (Status failed = m_engine->startPlayback()) {
        stop();
        return failed;
    }
    if (!m_engine->captureRunning()) {
        if (Status failed = m_engine->startCapture()) {
            stop();
            return failed;
        }
    }
    m_player->play();
    return std::nullopt;
}

void AudioBridge::stop()
{
    stopIntervention();
    if (m_engine) {
        // Returns once the callbacks are over: the paths are ours again.
        m_engine->stopCapture();
        m_engine->stopPlayback();
        m_engine->setCaptureCallback({});
        m_engine->setRenderCallback({});
    }
    m_tapped = false;
    m_outputTapped = false;
    m_player->stop();
    m_health.dropPending();
}

std::optional<std::vector<float>> AudioBridge::playbackBuffer(const QByteArray& bytes)
{
    if (bytes.size() < 2 || bytes.size() > kMaxDeltaBytes)
        return std::nullopt;
    const qsizetype frames = bytes.size() / 2;
    std::vector<float> samples;
    try {
        samples.resize(static_cast<std::size_t>(frames));
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
    const char* data = bytes.constData();
    for (qsizetype i = 0; i < frames; ++i)
        samples[std::size_t(i)] = float(readWire(data + 2 * i)) * (1.0f / 32768.0f);
    return samples;
}

void AudioBridge::enqueue(const QByteArray& bytes)
{
    auto samples = playbackBuffer(bytes);
    if (!samples)
        return;
    auto buffer = std::make_unique<PlayerBuffer>();
    buffer->samples = std::move(*samples);
    buffer->reportCompletion = true;
    buffer->generation = m_health.scheduled();
    const std::int64_t generation = buffer->generation;
    if (!m_player->schedule(std::move(buffer)))
        m_health.played(generation); // a full player drops the block: it will never play
}

void AudioBridge::interrupt()
{
    m_health.dropPending();
    m_player->stop();
    if (playbackRunning())
        m_player->play();
}

bool AudioBridge::needsRestart() const
{
    if (!captureRunning() || !playbackRunning() || m_health.stalled())
        return true;
    return m_monitorBridge && m_monitorBridge->needsRestart();
}

Status AudioBridge::resumeStoppedEngines()
{
    if (captureRunning() && playbackRunning())
        return std::nullopt;
    if (!m_engine || !(m_tapped && m_outputTapped))
        return std::nullopt;
    if (!m_captureFormat || !m_mixerFormat || m_engine->captureFormat() != *m_captureFormat ||
        m_engine->playbackFormat() != *m_mixerFormat)
        return AppError(PlatformWording::current().formatChanged);
    m_player->stop();
    m_health.reset();
    if (!m_engine->playbackRunning())
        if (Status failed = m_engine->startPlayback())
            return failed;
    if (!m_engine->captureRunning())
        if (Status failed = m_engine->startCapture())
            return failed;
    m_player->play();
    return std::nullopt;
}

Status AudioBridge::startIntervention(std::uint32_t microphoneID, std::uint32_t listeningID,
                                      std::uint32_t /*callInputID*/)
{
    stopIntervention();
    if (!playbackRunning())
        return AppError(kInterventionNeedsAudio);
    if (Status failed = m_interventionRoute.prepare(microphoneID, listeningID)) {
        stopIntervention();
        return failed;
    }
    auto nested = std::make_unique<AudioBridge>(m_io, m_system, m_clock);
    // The nested bridge plays the caller (our capture) and captures the manager, whose voice
    // goes to our mixer's operator bus.
    nested->m_voiceFeed = m_toManagerFeed.get();
    nested->onPCM = [feed = m_operatorFeed.get()](const QByteArray& wire) { feed->pushWire(wire); };
    m_toManagerFeed->stop(); // whatever is left from an earlier intervention
    m_toManagerFeed->play();
    if (Status failed = nested->start(microphoneID, listeningID, true)) {
        nested.reset();
        stopIntervention();
        return failed;
    }
    m_monitorBridge = std::move(nested);
    m_feedingManager.store(true, std::memory_order_release);
    interrupt();
    m_operatorFeed->play();
    return std::nullopt;
}

void AudioBridge::stopIntervention()
{
    m_feedingManager.store(false, std::memory_order_release);
    if (m_monitorBridge) {
        m_monitorBridge->stop();
        m_monitorBridge->onPCM = nullptr;
    }
    m_monitorBridge.reset();
    m_toManagerFeed->stop();
    m_operatorFeed->stop();
    m_interventionRoute.restore();
}

std::pair<double, double> AudioBridge::inputLevels() const
{
    return m_health.recentLevels();
}

QString AudioBridge::flowStatus() const
{
    auto state = [](bool running) {
        return running ? QStringLiteral("actif") : QStringLiteral("arrêté");
    };
    return m_health.description() + QStringLiteral(" · ") + m_health.signalDescription() +
           QStringLiteral(" · ") + m_routeDescription +
           QStringLiteral(" · moteurs entrée/sortie : ") + state(captureRunning()) +
           QStringLiteral("/") + state(playbackRunning());
}

void AudioBridge::onCapture(const float* interleaved, int frames)
{
    CapturePath& path = *m_capturePath;
    const int channels = path.source.channels;
    const double rate = path.source.sampleRate;
    for (int offset = 0; offset < frames; offset += kBlockFrames) {
        const int count = std::min(kBlockFrames, frames - offset);
        const float* block = interleaved + std::size_t(offset) * std::size_t(channels);
        m_health.addRawInput(double(count) / rate);

        const int converted = path.converter->convert(block, count, path.converted.data(),
                                                      int(path.converted.size()));
        if (converted < 0) {
            m_health.addInputError();
            continue;
        }
        if (converted == 0)
            continue;

        // The one allocation of the capture path: the block handed on to the AI, which keeps it.
        QByteArray wire(qsizetype(converted) * 2, Qt::Uninitialized);
        int peak = 0;
        char* out = wire.data();
        for (int i = 0; i < converted; ++i) {
            const float x = path.converted[std::size_t(i)];
            const std::int16_t s = path.macMode ? path.limiter.process(x) : floatToWire(x);
            writeWire(out + 2 * i, s);
            peak = std::max(peak, std::abs(int(s)));
        }
        const double raw = channelZeroPeak(block, count, channels);
        m_health.inputSignal(raw, double(peak) / 32768.0, converted);
        m_health.inputDelivered(converted);
        if (path.recorder)
            path.recorder->append(wire, 0);
        if (m_feedingManager.load(std::memory_order_acquire))
            m_toManagerFeed->pushWire(wire);
        if (path.onPCM)
            path.onPCM(wire);
    }
}

void AudioBridge::onRender(float* interleaved, int frames)
{
    RenderPath& path = *m_renderPath;
    const int channels = path.mixer.channels;
    auto voice = [this](float* buffer, int count) {
        std::fill(buffer, buffer + count, 0.0f);
        // Bus 0: the AI voice through the equaliser, limiter and headroom.
        m_player->mixInto(buffer, count);
        if (m_voiceFeed)
            m_voiceFeed->mixInto(buffer, count);
        m_voiceOutput->process(buffer, count);
        // Bus 1: the manager, straight in. (In a conversation on the computer the engine also
        // keeps the microphone on a bus at volume 0: it adds nothing, so it is not summed.)
        m_operatorFeed->mixInto(buffer, count);
    };
    for (int offset = 0; offset < frames; offset += kBlockFrames) {
        const int count = std::min(kBlockFrames, frames - offset);
        float* out = interleaved + std::size_t(offset) * std::size_t(channels);
        path.toDevice->pull(path.mono.data(), count, path.voice.data(), int(path.voice.size()),
                            voice);
        for (int i = 0; i < count; ++i)
            for (int c = 0; c < channels; ++c)
                out[std::size_t(i) * std::size_t(channels) + std::size_t(c)] =
                    path.mono[std::size_t(i)];

        // What leaves towards the device, measured in 2048-frame blocks like a mixer tap.
        int used = 0;
        while (used < count) {
            const int take = std::min(count - used, kBlockFrames - path.measureFrames);
            std::copy(path.mono.begin() + used, path.mono.begin() + used + take,
                      path.measureBlock.begin() + path.measureFrames);
            path.measureFrames += take;
            used += take;
            if (path.measureFrames < kBlockFrames)
                break;
            path.measureFrames = 0;
            m_health.addRawOutput(double(kBlockFrames) / path.mixer.sampleRate);
            const int converted =
                path.toWire->process(path.measureBlock.data(), kBlockFrames, 1,
                                     path.measured.data(), int(path.measured.size()));
            if (converted < 0) {
                m_health.addOutputError();
                continue;
            }
            if (converted == 0)
                continue;
            m_health.outputDelivered(converted);
            if (path.recorder) {
                char* wire = path.wire.data();
                for (int i = 0; i < converted; ++i)
                    writeWire(wire + 2 * i, floatToWire(path.measured[std::size_t(i)]));
                path.recorder->append(wire, converted * 2, 1);
            }
        }
    }
}

} // namespace vemira
