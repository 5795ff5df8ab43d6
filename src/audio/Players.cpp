#include "audio/Players.h"

#include "audio/AudioFormats.h"

#include <algorithm>

namespace vemira {

BufferPlayer::BufferPlayer(Completion onPlayed)
    : m_onPlayed(std::move(onPlayed)), m_queue(2 * kCapacity, nullptr)
{}

BufferPlayer::~BufferPlayer()
{
    // No render thread any more: take its side and free everything.
    flushLocal();
    Item item;
    while (m_incoming.pop(item))
        delete item.buffer;
    PlayerBuffer* done = nullptr;
    while (m_retired.pop(done))
        delete done;
}

bool BufferPlayer::schedule(std::unique_ptr<PlayerBuffer> buffer)
{
    collect();
    if (m_outstanding >= kCapacity)
        return false;
    if (!m_incoming.push(Item{buffer.get()}))
        return false;
    buffer.release();
    ++m_outstanding;
    return true;
}

void BufferPlayer::stop()
{
    m_playing.store(false, std::memory_order_release);
    m_incoming.push(Item{nullptr});
    collect();
}

void BufferPlayer::collect()
{
    PlayerBuffer* done = nullptr;
    while (m_retired.pop(done)) {
        delete done;
        --m_outstanding;
    }
}

void BufferPlayer::finish(PlayerBuffer* buffer)
{
    if (buffer->reportCompletion && m_onPlayed)
        m_onPlayed(buffer->generation);
    // Cannot fail: at most kCapacity buffers are outstanding and the FIFO holds twice that.
    m_retired.push(buffer);
}

void BufferPlayer::flushLocal()
{
    while (m_queueSize > 0) {
        finish(m_queue[m_queueHead]);
        m_queueHead = (m_queueHead + 1) % m_queue.size();
        --m_queueSize;
    }
    m_position = 0;
}

void BufferPlayer::mixInto(float* out, int frames)
{
    Item item;
    while (m_incoming.pop(item)) {
        if (!item.buffer) {
            flushLocal();
            continue;
        }
        m_queue[(m_queueHead + m_queueSize) % m_queue.size()] = item.buffer;
        ++m_queueSize;
    }
    if (!m_playing.load(std::memory_order_acquire))
        return;
    int written = 0;
    while (written < frames && m_queueSize > 0) {
        PlayerBuffer* buffer = m_queue[m_queueHead];
        const std::size_t available = buffer->samples.size() - m_position;
        const std::size_t take = std::min<std::size_t>(available, std::size_t(frames - written));
        const float* source = buffer->samples.data() + m_position;
        for (std::size_t i = 0; i < take; ++i)
            out[std::size_t(written) + i] += source[i];
        written += int(take);
        m_position += take;
        if (m_position >= buffer->samples.size()) {
            m_queueHead = (m_queueHead + 1) % m_queue.size();
            --m_queueSize;
            m_position = 0;
            finish(buffer);
        }
    }
}

FeedPlayer::FeedPlayer() : m_ring(std::size_t(kCapacityFrames), 0.0f) {}

void FeedPlayer::pushWire(const char* bytes, int byteCount)
{
    const int frames = byteCount / kWireBytesPerFrame;
    if (frames <= 0)
        return;
    if (frames > m_largestPush.load(std::memory_order_relaxed))
        m_largestPush.store(frames, std::memory_order_relaxed);
    const std::int64_t written = m_written.load(std::memory_order_relaxed);
    const std::int64_t room = kCapacityFrames - (written - m_read.load(std::memory_order_acquire));
    const std::int64_t take = std::min<std::int64_t>(frames, room);
    if (take < frames)
        m_dropped.fetch_add(1, std::memory_order_relaxed);
    for (std::int64_t i = 0; i < take; ++i)
        m_ring[std::size_t((written + i) & (kCapacityFrames - 1))] =
            wireToFloat(readWire(bytes + 2 * i));
    m_written.store(written + take, std::memory_order_release);
}

void FeedPlayer::stop()
{
    m_playing.store(false, std::memory_order_release);
    m_flushRequests.fetch_add(1, std::memory_order_acq_rel);
}

void FeedPlayer::mixInto(float* out, int frames)
{
    const std::uint32_t flushes = m_flushRequests.load(std::memory_order_acquire);
    if (flushes != m_flushesSeen) {
        m_flushesSeen = flushes;
        m_read.store(m_written.load(std::memory_order_acquire), std::memory_order_release);
        m_starved = true;
    }
    if (!m_playing.load(std::memory_order_acquire))
        return;
    const std::int64_t read = m_read.load(std::memory_order_relaxed);
    const std::int64_t available = m_written.load(std::memory_order_acquire) - read;
    if (m_starved) {
        if (available < m_largestPush.load(std::memory_order_relaxed) + kPrefillFrames)
            return;
        m_starved = false;
    }
    const std::int64_t take = std::min<std::int64_t>(frames, available);
    for (std::int64_t i = 0; i < take; ++i)
        out[i] += m_ring[std::size_t((read + i) & (kCapacityFrames - 1))];
    m_read.store(read + take, std::memory_order_release);
    if (take < frames)
        m_starved = true;
}

} // namespace vemira
