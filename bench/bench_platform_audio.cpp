// Added latency of the call audio path, each way, on a private PulseAudio daemon and then on a
// private PipeWire (WirePlumber, pipewire-pulse) when it is installed, each with the virtual
// devices (scripts/env/pulseaudio.sh), printed side by side:
//   caller → AI: the capture fragment the server granted (the longest a sample waits in the
//                stream before our callback; a virtual device's monitor hands samples over as
//                they are rendered, so there is no device buffer before it) plus our path from
//                the capture callback to the wire bytes;
//   AI → caller: our path from wire bytes enqueued to the sample being handed to the device
//                stream, plus the server's playback latency from there to the device.
// A short burst is timed at each end; the figures are the median and worst of 20 bursts, and
// a round trip through one virtual device as a cross-check.
#include "audio/AudioBridge.h"
#include "audio/AudioSystem.h"
#include "platform/linux/audio/PulseEngine.h"
#include "support/PulseDaemon.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QStandardPaths>
#include <QThread>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <vector>

using namespace vemira;
using SteadyClock = std::chrono::steady_clock;

namespace {

constexpr float kThreshold = 0.2f;

double nowSeconds()
{
    return std::chrono::duration<double>(SteadyClock::now().time_since_epoch()).count();
}

// Stamps the first loud sample seen at each end of an engine after being armed.
struct Stamps {
    std::atomic<bool> captureArmed{false};
    std::atomic<double> captureSeen{0};
    std::atomic<bool> renderArmed{false};
    std::atomic<double> renderSeen{0};
};

bool loud(const float* interleaved, int frames, int channels)
{
    for (int i = 0; i < frames; ++i) {
        if (std::fabs(interleaved[std::size_t(i) * std::size_t(channels)]) > kThreshold)
            return true;
    }
    return false;
}

class TimingEngine final : public AudioEngine {
public:
    TimingEngine(std::unique_ptr<AudioEngine> inner, Stamps& stamps)
        : m_inner(std::move(inner)), m_stamps(stamps)
    {}
    pulse::PulseEngine* pulse() const { return dynamic_cast<pulse::PulseEngine*>(m_inner.get()); }

    bool hasCapture() const override { return m_inner->hasCapture(); }
    bool hasPlayback() const override { return m_inner->hasPlayback(); }
    bool isDuplex() const override { return m_inner->isDuplex(); }
    DeviceFormat captureFormat() const override { return m_inner->captureFormat(); }
    DeviceFormat playbackFormat() const override { return m_inner->playbackFormat(); }
    void setCaptureCallback(CaptureCallback callback) override
    {
        const int channels = m_inner->captureFormat().channels;
        m_inner->setCaptureCallback(
            [this, channels, callback = std::move(callback)](const float* in, int frames) {
                if (m_stamps.captureArmed.load() && loud(in, frames, channels)) {
                    m_stamps.captureArmed.store(false);
                    m_stamps.captureSeen.store(nowSeconds());
                }
                callback(in, frames);
            });
    }
    void setRenderCallback(RenderCallback callback) override
    {
        const int channels = m_inner->playbackFormat().channels;
        m_inner->setRenderCallback(
            [this, channels, callback = std::move(callback)](float* out, int frames) {
                callback(out, frames);
                if (m_stamps.renderArmed.load() && loud(out, frames, channels)) {
                    m_stamps.renderArmed.store(false);
                    m_stamps.renderSeen.store(nowSeconds());
                }
            });
    }
    Status startCapture() override { return m_inner->startCapture(); }
    Status startPlayback() override { return m_inner->startPlayback(); }
    void stopCapture() override { m_inner->stopCapture(); }
    void stopPlayback() override { m_inner->stopPlayback(); }
    bool captureRunning() const override { return m_inner->captureRunning(); }
    bool playbackRunning() const override { return m_inner->playbackRunning(); }

private:
    std::unique_ptr<AudioEngine> m_inner;
    Stamps& m_stamps;
};

class TimingDeviceIO final : public AudioDeviceIO {
public:
    explicit TimingDeviceIO(Stamps& stamps)
        : m_inner(createPlatformAudioDeviceIO()), m_stamps(stamps)
    {}
    Result<std::unique_ptr<AudioEngine>> open(const AudioEngineRequest& request) override
    {
        Result<std::unique_ptr<AudioEngine>> opened = m_inner->open(request);
        if (!opened)
            return opened.error();
        auto engine = std::make_unique<TimingEngine>(std::move(opened).value(), m_stamps);
        last = engine.get();
        return std::unique_ptr<AudioEngine>(std::move(engine));
    }
    TimingEngine* last = nullptr;

private:
    std::unique_ptr<AudioDeviceIO> m_inner;
    Stamps& m_stamps;
};

void pump(int milliseconds)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < milliseconds) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        QThread::usleep(500);
    }
}

std::uint32_t idOf(const QList<SoundDevice>& devices, const QString& uid)
{
    for (const SoundDevice& device : devices) {
        if (device.uid == uid)
            return device.id;
    }
    return 0;
}

QByteArray burstWire()
{
    QByteArray wire(2 * 2400, '\0'); // 100 ms, the first 10 ms loud
    for (int n = 0; n < 240; ++n) {
        const auto s = std::int16_t(
            16000.0 * std::sin(2 * std::numbers::pi * 1000.0 * n / 24000.0 + std::numbers::pi / 2));
        wire[2 * n] = char(s & 0xff);
        wire[2 * n + 1] = char((s >> 8) & 0xff);
    }
    return wire;
}

struct Figures {
    std::vector<double> values;
    void add(double seconds) { values.push_back(seconds * 1000.0); }
    double median()
    {
        std::sort(values.begin(), values.end());
        return values.empty() ? 0 : values[values.size() / 2];
    }
    double worst() { return values.empty() ? 0 : *std::max_element(values.begin(), values.end()); }
};

struct Measured {
    Figures captureDevice, capturePath, captureTotal, playPath, playDevice, playTotal, roundTrip;
};

// One run on the server VEMIRA_SOUND_SERVER names; false when it could not be measured.
bool measure(Measured& m)
{
    PulseDaemon daemon;
    const QString failure = daemon.start();
    if (!failure.isEmpty()) {
        std::fprintf(stderr, "no sound server: %s\n", qPrintable(failure));
        return false;
    }
    std::unique_ptr<AudioSystem> system = createPlatformAudioSystem();
    const QList<SoundDevice> devices = system->devices();
    const std::uint32_t call = idOf(devices, BrelianDevices::callUID());
    const std::uint32_t voice = idOf(devices, BrelianDevices::voiceUID());

    Stamps stamps;
    TimingDeviceIO io(stamps);
    std::atomic<double> wireSeen{0};
    std::atomic<bool> wireArmed{false};
    AudioBridge bridge(io, *system);
    bridge.onPCM = [&](const QByteArray& wire) {
        if (!wireArmed.load())
            return;
        for (qsizetype i = 0; i + 1 < wire.size(); i += 2) {
            const auto s = std::int16_t(
                std::uint16_t(std::uint8_t(wire[i]) | (std::uint8_t(wire[i + 1]) << 8)));
            if (std::abs(int(s)) > int(kThreshold * 32768)) {
                wireArmed.store(false);
                wireSeen.store(nowSeconds());
                return;
            }
        }
    };
    // Phone mode as in a call: capture the call device, play to the voice device.
    if (Status started = bridge.start(call, voice, false)) {
        std::fprintf(stderr, "bridge: %s\n", qPrintable(started->message()));
        return false;
    }
    pulse::PulseEngine* engine = io.last->pulse();

    // Someone speaks into the call device: a second engine plays the bursts there.
    std::unique_ptr<AudioEngine> caller =
        std::move(createPlatformAudioDeviceIO()->open({std::nullopt, call, false, 2048})).value();
    std::atomic<bool> speak{false};
    const DeviceFormat callerFormat = caller->playbackFormat();
    int left = 0;
    caller->setRenderCallback([&](float* out, int frames) {
        if (speak.exchange(false))
            left = int(callerFormat.sampleRate / 100); // 10 ms
        for (int i = 0; i < frames; ++i, left = std::max(0, left - 1))
            for (int c = 0; c < callerFormat.channels; ++c)
                out[i * callerFormat.channels + c] = left > 0 ? 0.5f : 0.0f;
    });
    caller->startPlayback();
    pump(500);

    auto& [captureDevice, capturePath, captureTotal, playPath, playDevice, playTotal, roundTrip] =
        m;
    for (int burst = 0; burst < 20; ++burst) {
        stamps.captureArmed = true;
        wireArmed = true;
        speak = true;
        pump(250);
        if (!stamps.captureArmed && !wireArmed) {
            const double path = wireSeen.load() - stamps.captureSeen.load();
            const double device = engine->captureFragment().value_or(0);
            capturePath.add(path);
            captureDevice.add(device);
            captureTotal.add(path + device);
        }
        stamps.renderArmed = true;
        const double enqueued = nowSeconds();
        bridge.enqueue(burstWire());
        pump(250);
        if (!stamps.renderArmed) {
            const double path = stamps.renderSeen.load() - enqueued;
            const double device = engine->playbackLatency().value_or(0);
            playPath.add(path);
            playDevice.add(device);
            playTotal.add(path + device);
        }
    }
    caller->stopPlayback();
    bridge.stop();

    // Cross-check: enqueue → onPCM through one virtual device, both ways at once.
    AudioBridge loop(io, *system);
    loop.onPCM = bridge.onPCM;
    if (!loop.start(call, call, false)) {
        pump(300);
        for (int burst = 0; burst < 20; ++burst) {
            wireArmed = true;
            const double enqueued = nowSeconds();
            loop.enqueue(burstWire());
            pump(300);
            if (!wireArmed)
                roundTrip.add(wireSeen.load() - enqueued);
        }
        loop.stop();
    }

    return true;
}

void print(const char* what, const std::vector<Figures*>& figures)
{
    // Padded by characters, not bytes: the arrows take three bytes each.
    std::printf("  %s%*s", what, int(62 - QString::fromUtf8(what).size()), "");
    for (Figures* f : figures)
        std::printf(" │ %6.2f / %6.2f ms (%2zu)", f->median(), f->worst(), f->values.size());
    std::printf("\n");
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    std::vector<std::pair<const char*, Measured>> runs;
    for (const char* server : {"pulseaudio", "pipewire"}) {
        if (std::strcmp(server, "pipewire") == 0 &&
            QStandardPaths::findExecutable(QStringLiteral("pipewire-pulse")).isEmpty()) {
            std::printf("(PipeWire is not installed: PulseAudio only)\n");
            continue;
        }
        qputenv("VEMIRA_SOUND_SERVER", server);
        Measured measured;
        if (!measure(measured))
            return 1;
        runs.emplace_back(std::strcmp(server, "pipewire") == 0 ? "PipeWire" : "PulseAudio",
                          std::move(measured));
    }
    const auto column = [&runs](Figures Measured::*which) {
        std::vector<Figures*> figures;
        figures.reserve(runs.size());
        for (auto& run : runs)
            figures.push_back(&(run.second.*which));
        return figures;
    };
    std::printf("Call audio latency (private servers, null sinks, 48 kHz stereo), "
                "median / worst (bursts)\n");
    std::printf("  %-62s", "");
    for (const auto& run : runs)
        std::printf(" │ %-23s", run.first);
    std::printf("\ncaller → AI\n");
    print("capture fragment granted (longest wait before the callback)",
          column(&Measured::captureDevice));
    print("capture callback → wire bytes (our path)", column(&Measured::capturePath));
    print("total", column(&Measured::captureTotal));
    std::printf("AI → caller\n");
    print("wire bytes enqueued → handed to the device stream (our path)",
          column(&Measured::playPath));
    print("device buffers (playback stream latency)", column(&Measured::playDevice));
    print("total", column(&Measured::playTotal));
    print("round trip through one virtual device (enqueue → onPCM)", column(&Measured::roundTrip));
    std::printf("goal: under 60 ms each way including device buffers\n");
    return 0;
}
