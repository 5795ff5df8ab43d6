#include "audio/AudioFlowHealth.h"

#include "core/Clock.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

namespace vemira {

double AudioFlowHealth::processUptime()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

AudioFlowHealth::AudioFlowHealth() : AudioFlowHealth(TimeSource(&AudioFlowHealth::processUptime)) {}

AudioFlowHealth::AudioFlowHealth(TimeSource clock) : m_clock(std::move(clock))
{
    reset();
}

AudioFlowHealth::AudioFlowHealth(const Clock& clock)
    : AudioFlowHealth(TimeSource([&clock] { return clock.uptime(); }))
{}

void AudioFlowHealth::reset()
{
    std::lock_guard guard(m_lock);
    const double now = m_clock();
    m_s.inputTime = m_s.outputTime = m_s.demandTime = now;
    m_s.rawPeak = m_s.pcmPeak = m_s.latestRaw = m_s.latestPCM = 0;
    m_s.signalFrames = 0;
    m_s.signalTime = -std::numeric_limits<double>::infinity();
    m_s.pending = 0;
    m_s.inputFrames = m_s.outputFrames = 0;
    m_s.rawInputSeconds = m_s.rawOutputSeconds = 0;
    m_s.inputErrors = m_s.outputErrors = 0;
    m_s.generation += 1;
}

void AudioFlowHealth::inputSignal(double raw, double converted, std::int64_t frames)
{
    std::lock_guard guard(m_lock);
    m_s.latestRaw = raw;
    m_s.latestPCM = converted;
    m_s.signalTime = m_clock();
    m_s.rawPeak = std::max(m_s.rawPeak, raw);
    m_s.pcmPeak = std::max(m_s.pcmPeak, converted);
    if (converted > kSignalThreshold)
        m_s.signalFrames += frames;
}

bool AudioFlowHealth::stalled() const
{
    std::lock_guard guard(m_lock);
    const double now = m_clock();
    if (now - m_s.inputTime > kStallSeconds)
        return true;
    if (m_s.pending < 1)
        return false;
    return now - std::max(m_s.outputTime, m_s.demandTime) > kStallSeconds;
}

QString AudioFlowHealth::description() const
{
    std::lock_guard guard(m_lock);
    QString text =
        QString::asprintf("Audio reçu : %.1f s · sortie : %.1f s",
                          double(m_s.inputFrames) / 24000.0, double(m_s.outputFrames) / 24000.0);
    if (m_s.inputFrames == 0)
        text += QString::asprintf(" (micro brut : %.1f s, erreurs : %lld)", m_s.rawInputSeconds,
                                  static_cast<long long>(m_s.inputErrors));
    if (m_s.outputFrames == 0)
        text += QString::asprintf(" (moteur : %.1f s, erreurs de conversion : %lld)",
                                  m_s.rawOutputSeconds, static_cast<long long>(m_s.outputErrors));
    return text;
}

namespace {
QString level(double peak)
{
    if (peak > 0)
        return QString::asprintf("%.0f dB", 20.0 * std::log10(peak));
    return QStringLiteral("silence numérique");
}
} // namespace

QString AudioFlowHealth::signalDescription() const
{
    double raw, pcm;
    {
        std::lock_guard guard(m_lock);
        raw = m_s.rawPeak;
        pcm = m_s.pcmPeak;
    }
    return QStringLiteral("Micro capté : ") + level(raw) + QStringLiteral(" · vers IA : ") +
           level(pcm);
}

void AudioFlowHealth::addRawInput(double seconds)
{
    std::lock_guard guard(m_lock);
    m_s.rawInputSeconds += seconds;
}

void AudioFlowHealth::addInputError()
{
    std::lock_guard guard(m_lock);
    m_s.inputErrors += 1;
}

void AudioFlowHealth::inputDelivered(std::int64_t frames)
{
    std::lock_guard guard(m_lock);
    m_s.inputTime = m_clock();
    m_s.inputFrames += frames;
}

void AudioFlowHealth::addRawOutput(double seconds)
{
    std::lock_guard guard(m_lock);
    m_s.rawOutputSeconds += seconds;
}

void AudioFlowHealth::addOutputError()
{
    std::lock_guard guard(m_lock);
    m_s.outputErrors += 1;
}

void AudioFlowHealth::outputDelivered(std::int64_t frames)
{
    std::lock_guard guard(m_lock);
    m_s.outputTime = m_clock();
    m_s.outputFrames += frames;
}

std::int64_t AudioFlowHealth::scheduled()
{
    std::lock_guard guard(m_lock);
    if (m_s.pending == 0)
        m_s.demandTime = m_clock();
    m_s.pending += 1;
    return m_s.generation;
}

void AudioFlowHealth::played(std::int64_t generation)
{
    std::lock_guard guard(m_lock);
    if (generation == m_s.generation && m_s.pending > 0)
        m_s.pending -= 1;
}

void AudioFlowHealth::dropPending()
{
    std::lock_guard guard(m_lock);
    m_s.pending = 0;
    m_s.generation += 1;
}

std::pair<double, double> AudioFlowHealth::recentLevels() const
{
    std::lock_guard guard(m_lock);
    if (m_clock() - m_s.signalTime < 0.5)
        return {m_s.latestRaw, m_s.latestPCM};
    return {0.0, 0.0};
}

AudioFlowHealth::Snapshot AudioFlowHealth::snapshot() const
{
    std::lock_guard guard(m_lock);
    return m_s;
}

} // namespace vemira
