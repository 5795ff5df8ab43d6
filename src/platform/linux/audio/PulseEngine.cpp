#include "platform/linux/audio/PulseEngine.h"

#include "platform/linux/audio/EchoCanceller.h"
#include "platform/linux/audio/PulseConnection.h"

#include <algorithm>
#include <cstring>
#include <pulse/error.h>
#include <pulse/timeval.h>
#include <pulse/volume.h>

namespace vemira::pulse {

namespace {
constexpr int connectTimeoutMs = 3000;
constexpr int streamTimeoutMs = 3000;

DeviceFormat formatOf(const pa_sample_spec& sampleSpec)
{
    return DeviceFormat{double(sampleSpec.rate), int(sampleSpec.channels)};
}

AppError streamFailure(int status)
{
    return AppError::withStatus(QStringLiteral("Le serveur de son a refusé le flux audio"), status);
}
} // namespace

std::unique_ptr<PulseEngine> PulseEngine::open(const Plan& plan, int* status)
{
    std::unique_ptr<PulseEngine> engine(new PulseEngine);
    engine->m_blockFrames = std::clamp(plan.blockFrames, 1, maxBlockFrames);
    engine->m_capture.engine = engine.get();
    engine->m_playback.engine = engine.get();

    if (plan.playback) {
        Direction& out = engine->m_playback;
        out.target = plan.playback;
        out.sampleSpec = pa_sample_spec{PA_SAMPLE_FLOAT32LE, plan.playback->sampleSpec.rate,
                                        plan.playback->sampleSpec.channels};
        out.channelMap = plan.playback->channelMap;
        out.format = formatOf(out.sampleSpec);
    }
    if (plan.capture) {
        Direction& in = engine->m_capture;
        in.target = plan.capture;
        if (plan.conversationOnComputer && plan.playback) {
            // The echo canceller compares microphone and loudspeaker sample by sample: capture
            // mono at the loudspeaker's rate and let the server convert the microphone.
            const std::uint32_t rate = plan.playback->sampleSpec.rate;
            in.sampleSpec = pa_sample_spec{PA_SAMPLE_FLOAT32LE, rate, 1};
            pa_channel_map_init_mono(&in.channelMap);
            engine->m_echo = std::make_unique<EchoCanceller>(int(rate));
        } else {
            in.sampleSpec = pa_sample_spec{PA_SAMPLE_FLOAT32LE, plan.capture->sampleSpec.rate,
                                           plan.capture->sampleSpec.channels};
            in.channelMap = plan.capture->channelMap;
        }
        in.format = formatOf(in.sampleSpec);
    }
    for (const Direction* direction : {&engine->m_capture, &engine->m_playback}) {
        if (direction->target &&
            (!pa_sample_spec_valid(&direction->sampleSpec) ||
             !pa_channel_map_compatible(&direction->channelMap, &direction->sampleSpec))) {
            if (status)
                *status = -PA_ERR_NOTSUPPORTED;
            return nullptr;
        }
    }
    const std::size_t channels = std::max<std::size_t>(
        1, std::max(engine->m_capture.sampleSpec.channels, engine->m_playback.sampleSpec.channels));
    engine->m_silence.assign(std::size_t(maxBlockFrames) * channels, 0.0f);
    if (engine->m_echo)
        engine->m_cleaned.assign(std::size_t(maxBlockFrames), 0.0f);

    PulseConnection::Failure failure{-PA_ERR_CONNECTIONREFUSED};
    engine->m_connection = PulseConnection::connect("Vemira", connectTimeoutMs, &failure);
    if (!engine->m_connection) {
        if (status)
            *status = failure.status;
        return nullptr;
    }
    return engine;
}

PulseEngine::~PulseEngine()
{
    if (m_connection) {
        stop(m_capture);
        stop(m_playback);
    }
}

void PulseEngine::setCaptureCallback(CaptureCallback callback)
{
    PulseConnection::Lock lock(*m_connection);
    m_captureCallback = std::move(callback);
}

void PulseEngine::setRenderCallback(RenderCallback callback)
{
    PulseConnection::Lock lock(*m_connection);
    m_renderCallback = std::move(callback);
}

Status PulseEngine::startCapture()
{
    if (!m_capture.target)
        return AudioDeviceIO::deviceUnavailable();
    return start(m_capture);
}

Status PulseEngine::startPlayback()
{
    if (!m_playback.target)
        return AudioDeviceIO::deviceUnavailable();
    return start(m_playback);
}

void PulseEngine::stopCapture()
{
    stop(m_capture);
}

void PulseEngine::stopPlayback()
{
    stop(m_playback);
}

Status PulseEngine::start(Direction& direction)
{
    PulseConnection::Lock lock(*m_connection);
    if (direction.stream) {
        if (direction.running.load())
            return std::nullopt;
        // Died by itself since the last start: clear the corpse first.
        pa_stream_set_state_callback(direction.stream, nullptr, nullptr);
        pa_stream_set_read_callback(direction.stream, nullptr, nullptr);
        pa_stream_set_write_callback(direction.stream, nullptr, nullptr);
        pa_stream_set_started_callback(direction.stream, nullptr, nullptr);
        pa_stream_set_underflow_callback(direction.stream, nullptr, nullptr);
        pa_stream_disconnect(direction.stream);
        pa_stream_unref(direction.stream);
        direction.stream = nullptr;
    }
    if (!m_connection->isReady())
        return streamFailure(-PA_ERR_CONNECTIONTERMINATED);

    const bool capture = &direction == &m_capture;
    pa_proplist* properties = pa_proplist_new();
    pa_proplist_sets(properties, PA_PROP_MEDIA_NAME, capture ? "Vemira — écoute" : "Vemira — voix");
    pa_stream* stream = pa_stream_new_with_proplist(
        m_connection->context(), nullptr, &direction.sampleSpec, &direction.channelMap, properties);
    pa_proplist_free(properties);
    if (!stream)
        return streamFailure(m_connection->lastStatus());
    direction.stream = stream;
    direction.lost = false;
    direction.flowing = false;
    pa_stream_set_state_callback(stream, &PulseEngine::onState, &direction);

    const auto flags =
        pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE | PA_STREAM_START_UNMUTED |
                          PA_STREAM_INTERPOLATE_TIMING | PA_STREAM_AUTO_TIMING_UPDATE);
    pa_buffer_attr attributes;
    attributes.maxlength = std::uint32_t(-1);
    attributes.prebuf = std::uint32_t(-1);
    attributes.minreq = std::uint32_t(-1);
    attributes.tlength = std::uint32_t(-1);
    attributes.fragsize = std::uint32_t(-1);
    int connected;
    if (capture) {
        const double blockSeconds = double(m_blockFrames) / double(direction.sampleSpec.rate);
        const double fragmentSeconds = std::min(captureFragmentMs / 1000.0, blockSeconds);
        attributes.fragsize = std::uint32_t(
            pa_usec_to_bytes(pa_usec_t(fragmentSeconds * 1e6), &direction.sampleSpec));
        pa_stream_set_read_callback(stream, &PulseEngine::onRead, this);
        connected = pa_stream_connect_record(stream, direction.target->name.constData(),
                                             &attributes, flags);
    } else {
        m_playbackTargetMs = m_echo ? echoPlaybackTargetMs : playbackTargetMs;
        const int targetMs = m_playbackTargetMs;
        attributes.tlength = std::uint32_t(
            pa_usec_to_bytes(pa_usec_t(targetMs) * PA_USEC_PER_MSEC, &direction.sampleSpec));
        attributes.minreq = std::uint32_t(
            pa_usec_to_bytes(pa_usec_t(targetMs / 4) * PA_USEC_PER_MSEC, &direction.sampleSpec));
        // Full volume whatever a volume-restoring module remembers for "Vemira": the far end
        // must hear exactly what we render.
        pa_cvolume volume;
        pa_cvolume_set(&volume, direction.sampleSpec.channels, PA_VOLUME_NORM);
        pa_stream_set_write_callback(stream, &PulseEngine::onWrite, this);
        pa_stream_set_started_callback(stream, &PulseEngine::onStarted, &direction);
        pa_stream_set_underflow_callback(stream, &PulseEngine::onUnderflow, this);
        connected = pa_stream_connect_playback(stream, direction.target->name.constData(),
                                               &attributes, flags, &volume, nullptr);
    }
    const bool ready =
        connected == 0 && m_connection->waitUntil(
                              [stream] {
                                  const pa_stream_state_t state = pa_stream_get_state(stream);
                                  return state == PA_STREAM_READY || !PA_STREAM_IS_GOOD(state);
                              },
                              streamTimeoutMs);
    if (!ready || pa_stream_get_state(stream) != PA_STREAM_READY) {
        const int status = connected < 0 || ready ? m_connection->lastStatus() : -PA_ERR_TIMEOUT;
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_set_read_callback(stream, nullptr, nullptr);
        pa_stream_set_write_callback(stream, nullptr, nullptr);
        pa_stream_set_started_callback(stream, nullptr, nullptr);
        pa_stream_set_underflow_callback(stream, nullptr, nullptr);
        pa_stream_disconnect(stream);
        pa_stream_unref(stream);
        direction.stream = nullptr;
        return streamFailure(status);
    }
    direction.running.store(true);
    // Not flowing within the limit is no failure: the flow watchdog upstream judges that.
    m_connection->waitUntil([&direction] { return direction.flowing || direction.lost; },
                            warmUpLimitMs);
    return std::nullopt;
}

void PulseEngine::stop(Direction& direction)
{
    PulseConnection::Lock lock(*m_connection);
    direction.running.store(false);
    if (!direction.stream)
        return;
    // Under the loop lock no callback is running, and with the callbacks cleared and the
    // stream disconnected none will run again.
    pa_stream_set_state_callback(direction.stream, nullptr, nullptr);
    pa_stream_set_read_callback(direction.stream, nullptr, nullptr);
    pa_stream_set_write_callback(direction.stream, nullptr, nullptr);
    pa_stream_set_started_callback(direction.stream, nullptr, nullptr);
    pa_stream_set_underflow_callback(direction.stream, nullptr, nullptr);
    pa_stream_disconnect(direction.stream);
    pa_stream_unref(direction.stream);
    direction.stream = nullptr;
}

void PulseEngine::onUnderflow(pa_stream* stream, void* data)
{
    auto* engine = static_cast<PulseEngine*>(data);
    if (engine->m_playbackTargetMs >= playbackTargetLimitMs)
        return;
    engine->m_playbackTargetMs += playbackTargetStepMs;
    const pa_sample_spec& sampleSpec = engine->m_playback.sampleSpec;
    pa_buffer_attr attributes = *pa_stream_get_buffer_attr(stream);
    attributes.tlength = std::uint32_t(
        pa_usec_to_bytes(pa_usec_t(engine->m_playbackTargetMs) * PA_USEC_PER_MSEC, &sampleSpec));
    attributes.prebuf = std::uint32_t(-1);
    // Asynchronous; nothing to wait for here on the loop thread.
    if (pa_operation* operation = pa_stream_set_buffer_attr(stream, &attributes, nullptr, nullptr))
        pa_operation_unref(operation);
}

void PulseEngine::onStarted(pa_stream*, void* data)
{
    auto* direction = static_cast<Direction*>(data);
    direction->flowing = true;
    direction->engine->m_connection->wake();
}

void PulseEngine::onState(pa_stream* stream, void* data)
{
    auto* direction = static_cast<Direction*>(data);
    if (!PA_STREAM_IS_GOOD(pa_stream_get_state(stream))) {
        direction->running.store(false);
        direction->lost = true;
    }
    direction->engine->m_connection->wake();
}

void PulseEngine::onRead(pa_stream* stream, std::size_t, void* data)
{
    auto* engine = static_cast<PulseEngine*>(data);
    if (!engine->m_capture.flowing) {
        engine->m_capture.flowing = true;
        engine->m_connection->wake();
    }
    if (engine->m_echo && ++engine->m_readsSinceDelayCheck >= delayCheckReads) {
        engine->m_readsSinceDelayCheck = 0;
        engine->measureEchoDelay();
    }
    const std::size_t frameBytes = pa_frame_size(&engine->m_capture.sampleSpec);
    while (pa_stream_readable_size(stream) > 0) {
        const void* bytes = nullptr;
        std::size_t length = 0;
        if (pa_stream_peek(stream, &bytes, &length) < 0 || length == 0)
            return;
        int frames = int(length / frameBytes);
        const auto* samples = static_cast<const float*>(bytes);
        const std::size_t channels = engine->m_capture.sampleSpec.channels;
        while (frames > 0) {
            const int chunk = std::min(frames, engine->m_blockFrames);
            // A hole (data lost by the server) keeps its length as silence, so time stays true.
            engine->deliver(samples ? samples : engine->m_silence.data(), chunk);
            if (samples)
                samples += std::size_t(chunk) * channels;
            frames -= chunk;
        }
        pa_stream_drop(stream);
    }
}

void PulseEngine::measureEchoDelay()
{
    // Loop thread: both streams belong to this loop, their timing is ours to read.
    pa_stream* in = m_capture.stream;
    pa_stream* out = m_playback.stream;
    if (!in || !out || !m_playback.running.load())
        return;
    pa_usec_t captureLatency = 0, playbackLatency = 0;
    int negative = 0;
    if (pa_stream_get_latency(in, &captureLatency, &negative) < 0 || negative)
        return;
    if (pa_stream_get_latency(out, &playbackLatency, &negative) < 0 || negative)
        return;
    const double seconds = double(captureLatency + playbackLatency) / 1e6;
    m_echo->setEchoDelay(int(seconds * double(m_capture.sampleSpec.rate)));
}

void PulseEngine::deliver(const float* interleaved, int frames)
{
    if (!m_echo) {
        if (m_captureCallback)
            m_captureCallback(interleaved, frames);
        return;
    }
    // Mono here (see open()). Feed the canceller in slices that leave room for its carry.
    const int slice = maxBlockFrames - m_echo->frameSize();
    for (int offset = 0; offset < frames; offset += slice) {
        const int count = std::min(slice, frames - offset);
        const int cleaned = m_echo->capture(interleaved + offset, count, m_cleaned.data());
        if (cleaned > 0 && m_captureCallback)
            m_captureCallback(m_cleaned.data(), cleaned);
    }
}

void PulseEngine::onWrite(pa_stream* stream, std::size_t requested, void* data)
{
    auto* engine = static_cast<PulseEngine*>(data);
    const Direction& out = engine->m_playback;
    const std::size_t frameBytes = pa_frame_size(&out.sampleSpec);
    while (requested >= frameBytes) {
        void* buffer = nullptr;
        std::size_t length = requested;
        if (pa_stream_begin_write(stream, &buffer, &length) < 0 || !buffer)
            return;
        const int frames = int(std::min(length, requested) / frameBytes);
        const int chunk = std::min(frames, maxBlockFrames);
        if (chunk <= 0) {
            pa_stream_cancel_write(stream);
            return;
        }
        auto* samples = static_cast<float*>(buffer);
        if (engine->m_renderCallback)
            engine->m_renderCallback(samples, chunk);
        else
            std::memset(samples, 0, std::size_t(chunk) * frameBytes);
        if (engine->m_echo)
            engine->m_echo->playback(samples, chunk, int(out.sampleSpec.channels));
        const std::size_t written = std::size_t(chunk) * frameBytes;
        if (pa_stream_write(stream, samples, written, nullptr, 0, PA_SEEK_RELATIVE) < 0)
            return;
        requested -= written;
    }
}

DeviceFormat PulseEngine::captureFormat() const
{
    return currentFormat(m_capture);
}

DeviceFormat PulseEngine::playbackFormat() const
{
    return currentFormat(m_playback);
}

DeviceFormat PulseEngine::currentFormat(const Direction& direction) const
{
    if (!direction.target)
        return {};
    PulseConnection::Lock lock(*m_connection);
    if (!direction.lost)
        return direction.format;
    // The stream died by itself: the server converts for us, so our format still holds as
    // long as the device is there; a vanished device has no format, which asks for a rebuild.
    if (!m_connection->isReady())
        return {};
    const std::optional<DeviceTable> table =
        fetchDeviceTable(*m_connection, streamTimeoutMs, nullptr);
    if (!table)
        return {};
    for (const DeviceEntry& entry : table->entries) {
        const std::optional<StreamTarget>& side =
            &direction == &m_capture ? entry.capture : entry.playback;
        if (side && side->name == direction.target->name)
            return direction.format;
    }
    return {};
}

std::optional<double> PulseEngine::captureLatency() const
{
    return latencyOf(m_capture);
}

std::optional<double> PulseEngine::playbackLatency() const
{
    return latencyOf(m_playback);
}

std::optional<double> PulseEngine::captureFragment() const
{
    PulseConnection::Lock lock(*m_connection);
    if (!m_capture.stream || !m_capture.running.load())
        return std::nullopt;
    const pa_buffer_attr* attributes = pa_stream_get_buffer_attr(m_capture.stream);
    if (!attributes)
        return std::nullopt;
    return double(pa_bytes_to_usec(attributes->fragsize, &m_capture.sampleSpec)) / 1e6;
}

std::optional<double> PulseEngine::latencyOf(const Direction& direction) const
{
    PulseConnection::Lock lock(*m_connection);
    if (!direction.stream || !direction.running.load())
        return std::nullopt;
    pa_usec_t latency = 0;
    int negative = 0;
    if (pa_stream_get_latency(direction.stream, &latency, &negative) < 0)
        return std::nullopt;
    return negative ? -double(latency) / 1e6 : double(latency) / 1e6;
}

} // namespace vemira::pulse
