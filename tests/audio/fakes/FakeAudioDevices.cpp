#include "audio/fakes/FakeAudioDevices.h"

#include "support/Pcm.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace vemira::testing {

std::optional<std::uint32_t> FakeAudioSystem::transportType(std::uint32_t id) const
{
    const auto it = transports.constFind(id);
    if (it == transports.cend())
        return std::nullopt;
    return *it;
}

Result<std::uint32_t> FakeAudioSystem::readDefault(std::uint32_t selector)
{
    if (readFailures.contains(selector))
        return AudioSystem::readFailure(readFailures.value(selector));
    return defaults.value(selector, 0);
}

Status FakeAudioSystem::writeDefault(std::uint32_t selector, std::uint32_t deviceID)
{
    if (writeFailures.contains(selector))
        return AudioSystem::writeFailure(writeFailures.value(selector));
    defaults.insert(selector, deviceID);
    writes.append({selector, deviceID});
    return std::nullopt;
}

void FakeAudioSystem::addDevice(std::uint32_t id, const QString& name, const QString& uid,
                                bool input, bool output, std::uint32_t transport)
{
    deviceList.append(SoundDevice{id, name, uid, input, output});
    transports.insert(id, transport);
}

FakeAudioEngine::FakeAudioEngine(FakeAudioDeviceIO& io, AudioEngineRequest request)
    : m_io(io), m_request(request), m_inputID(m_request.inputDeviceID.value_or(0)),
      m_outputID(m_request.outputDeviceID.value_or(0))
{}

FakeAudioEngine::~FakeAudioEngine()
{
    stopCapture();
    stopPlayback();
    m_io.forget(this);
}

DeviceFormat FakeAudioEngine::captureFormat() const
{
    if (!m_request.inputDeviceID)
        return {};
    const auto* device = m_io.device(*m_request.inputDeviceID);
    return device ? device->captureFormat : DeviceFormat{};
}

DeviceFormat FakeAudioEngine::playbackFormat() const
{
    if (!m_request.outputDeviceID)
        return {};
    const auto* device = m_io.device(*m_request.outputDeviceID);
    return device ? device->playbackFormat : DeviceFormat{};
}

void FakeAudioEngine::setCaptureCallback(CaptureCallback callback)
{
    m_captureCallback = std::move(callback);
}

void FakeAudioEngine::setRenderCallback(RenderCallback callback)
{
    m_renderCallback = std::move(callback);
}

Status FakeAudioEngine::startCapture()
{
    if (!hasCapture() || m_captureRunning)
        return std::nullopt;
    if (const auto* device = m_io.device(*m_request.inputDeviceID); device && device->startError)
        return AppError(*device->startError);
    join(m_captureThread, m_captureQuit);
    m_captureQuit = false;
    m_captureRunning = true;
    if (m_io.threaded) {
        const DeviceFormat format = captureFormat();
        const int requested = m_io.captureBlockSeconds
                                  ? int(std::lround(*m_io.captureBlockSeconds * format.sampleRate))
                                  : m_request.blockFrames;
        const int frames = std::clamp(requested, 1, AudioEngine::maxBlockFrames);
        const double period = double(frames) / format.sampleRate;
        m_captureThread =
            std::thread([this, format, frames, period] { captureLoop(format, frames, period); });
    }
    // One duplex engine: both directions go together.
    if (isDuplex() && !m_playbackRunning)
        return startPlayback();
    return std::nullopt;
}

Status FakeAudioEngine::startPlayback()
{
    if (!hasPlayback() || m_playbackRunning)
        return std::nullopt;
    if (const auto* device = m_io.device(*m_request.outputDeviceID); device && device->startError)
        return AppError(*device->startError);
    join(m_playbackThread, m_playbackQuit);
    m_playbackQuit = false;
    m_playbackRunning = true;
    if (m_io.threaded) {
        const DeviceFormat format = playbackFormat();
        const int frames = 480; // a 10 ms device period at 48 kHz
        const double period = double(frames) / format.sampleRate;
        m_playbackThread =
            std::thread([this, format, frames, period] { playbackLoop(format, frames, period); });
    }
    if (isDuplex() && !m_captureRunning)
        return startCapture();
    return std::nullopt;
}

void FakeAudioEngine::join(std::thread& thread, std::atomic<bool>& quit)
{
    quit = true;
    if (thread.joinable())
        thread.join();
}

void FakeAudioEngine::stopCapture()
{
    join(m_captureThread, m_captureQuit);
    m_captureRunning = false;
    if (isDuplex() && m_playbackRunning)
        stopPlayback();
}

void FakeAudioEngine::stopPlayback()
{
    join(m_playbackThread, m_playbackQuit);
    m_playbackRunning = false;
    if (isDuplex() && m_captureRunning)
        stopCapture();
}

void FakeAudioEngine::platformStopCapture()
{
    m_captureQuit = true;
    m_captureRunning = false;
}

void FakeAudioEngine::platformStopPlayback()
{
    m_playbackQuit = true;
    m_playbackRunning = false;
}

void FakeAudioEngine::pumpCapture(const float* interleaved, int frames)
{
    if (m_captureRunning && m_captureCallback)
        m_captureCallback(interleaved, frames);
}

void FakeAudioEngine::pumpRender(float* interleaved, int frames)
{
    if (m_playbackRunning && m_renderCallback)
        m_renderCallback(interleaved, frames);
}

namespace {
// Sleeps until `due` (steady clock), advancing `due` by one period each time.
void pace(std::chrono::steady_clock::time_point& due, double seconds)
{
    due += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds));
    std::this_thread::sleep_until(due);
}
} // namespace

void FakeAudioEngine::captureLoop(DeviceFormat format, int frames, double period)
{
    std::vector<float> block(std::size_t(frames) * std::size_t(format.channels));
    auto due = std::chrono::steady_clock::now();
    while (!m_captureQuit.load()) {
        pace(due, period);
        if (m_captureQuit.load())
            break;
        m_io.takeCapture(m_inputID, block.data(), frames, format.channels);
        m_captureCallback(block.data(), frames);
    }
}

void FakeAudioEngine::playbackLoop(DeviceFormat format, int frames, double period)
{
    std::vector<float> block(std::size_t(frames) * std::size_t(format.channels));
    auto due = std::chrono::steady_clock::now();
    while (!m_playbackQuit.load()) {
        pace(due, period);
        if (m_playbackQuit.load())
            break;
        std::fill(block.begin(), block.end(), 0.0f);
        m_renderCallback(block.data(), frames);
        m_io.recordPlayed(m_outputID, block.data(), frames, format.channels);
    }
}

FakeAudioDeviceIO::Device& FakeAudioDeviceIO::addDevice(std::uint32_t id, DeviceFormat capture,
                                                        DeviceFormat playback)
{
    Device& device = m_devices[id];
    device.captureFormat = capture;
    device.playbackFormat = playback;
    return device;
}

FakeAudioDeviceIO::Device* FakeAudioDeviceIO::device(std::uint32_t id)
{
    const auto it = m_devices.find(id);
    return it == m_devices.end() ? nullptr : &it->second;
}

Result<std::unique_ptr<AudioEngine>> FakeAudioDeviceIO::open(const AudioEngineRequest& request)
{
    for (const auto& id : {request.inputDeviceID, request.outputDeviceID}) {
        if (!id)
            continue;
        const Device* d = device(*id);
        if (!d)
            return AudioDeviceIO::deviceUnavailable();
        if (d->selectStatus)
            return AudioDeviceIO::selectFailure(*d->selectStatus);
        if (request.conversationOnComputer && d->echoError)
            return AppError(*d->echoError);
    }
    ++m_openCount;
    auto engine = std::unique_ptr<FakeAudioEngine>(new FakeAudioEngine(*this, request));
    m_engines.append(engine.get());
    return std::unique_ptr<AudioEngine>(std::move(engine));
}

QList<FakeAudioEngine*> FakeAudioDeviceIO::engines() const
{
    return m_engines;
}

FakeAudioEngine* FakeAudioDeviceIO::lastEngine() const
{
    return m_engines.isEmpty() ? nullptr : m_engines.last();
}

void FakeAudioDeviceIO::forget(FakeAudioEngine* engine)
{
    m_engines.removeOne(engine);
}

void FakeAudioDeviceIO::feed(std::uint32_t deviceID, const std::vector<float>& interleaved)
{
    std::lock_guard guard(m_streamsLock);
    auto& feed = m_streams[deviceID].feed;
    feed.insert(feed.end(), interleaved.begin(), interleaved.end());
}

void FakeAudioDeviceIO::feedTone(std::uint32_t deviceID, double frequency, double amplitude,
                                 double seconds)
{
    const Device* d = device(deviceID);
    const DeviceFormat format = d ? d->captureFormat : DeviceFormat{48000, 1};
    feed(deviceID, sine(frequency, format.sampleRate, amplitude,
                        int(std::llround(seconds * format.sampleRate)), format.channels));
}

void FakeAudioDeviceIO::takeCapture(std::uint32_t deviceID, float* out, int frames, int channels)
{
    std::lock_guard guard(m_streamsLock);
    auto& feed = m_streams[deviceID].feed;
    const std::size_t wanted = std::size_t(frames) * std::size_t(channels);
    const std::size_t take = std::min(wanted, feed.size());
    std::copy(feed.begin(), feed.begin() + std::ptrdiff_t(take), out);
    feed.erase(feed.begin(), feed.begin() + std::ptrdiff_t(take));
    std::fill(out + take, out + wanted, 0.0f);
}

void FakeAudioDeviceIO::recordPlayed(std::uint32_t deviceID, const float* data, int frames,
                                     int channels)
{
    std::lock_guard guard(m_streamsLock);
    auto& played = m_streams[deviceID].played;
    played.insert(played.end(), data, data + std::size_t(frames) * std::size_t(channels));
}

std::vector<float> FakeAudioDeviceIO::played(std::uint32_t deviceID) const
{
    std::lock_guard guard(m_streamsLock);
    const auto it = m_streams.find(deviceID);
    return it == m_streams.end() ? std::vector<float>{} : it->second.played;
}

std::vector<float> FakeAudioDeviceIO::playedChannel(std::uint32_t deviceID, int channel) const
{
    const auto found = m_devices.find(deviceID);
    const int channels = found == m_devices.end() ? 1 : found->second.playbackFormat.channels;
    const std::vector<float> all = played(deviceID);
    std::vector<float> one;
    one.reserve(all.size() / std::size_t(channels));
    for (std::size_t i = std::size_t(channel); i < all.size(); i += std::size_t(channels))
        one.push_back(all[i]);
    return one;
}

std::size_t FakeAudioDeviceIO::playedFrames(std::uint32_t deviceID) const
{
    const auto found = m_devices.find(deviceID);
    const int channels = found == m_devices.end() ? 1 : found->second.playbackFormat.channels;
    return played(deviceID).size() / std::size_t(channels);
}

void FakeAudioDeviceIO::clearPlayed(std::uint32_t deviceID)
{
    std::lock_guard guard(m_streamsLock);
    m_streams[deviceID].played.clear();
}

} // namespace vemira::testing
