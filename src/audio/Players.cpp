#include "audio/Players.h"

#include "audio/AudioFormats.h"

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

void FeedPlayer::pushWire(const char* bytes, int byteCount)
{
    int frames = byteCount / kWireBytesPerFrame;
    if (frames > m_largestPush.load(std::memory_order_relaxed))
        m_largestPush.store(frames, std::memory_order_relaxed);
    while (frames > 0) {
        Chunk* chunk = m_fifo.beginPush();
        if (!chunk) {
            m_dropped.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        const int take = frames < kChunkFrames ? frames : kChunkFrames;
        for (int i = 0; i < take; ++i)
            chunk->samples[std::size_t(i)] = wireToFloat(readWire(bytes + 2 * i));
        chunk->frames = take;
        m_fifo.commitPush();
        m_pushedFrames.fetch_add(take, std::memory_order_release);
        bytes += 2 * take;
        frames -= take;
    }
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
        while (Chunk* chunk = m_fifo.front()) {
            m_playedFrames += chunk->frames - m_position;
            m_position = 0;
            m_fifo.pop();
        }
        m_starved = true;
    }
    if (!m_playing.load(std::memory_order_acquire))
        return;
    if (m_starved) {
        // The count is read after the chunks it covers were published (release/acquire).
        const std::int64_t wanted = m_largestPush.load(std::memory_order_relaxed) + kPrefillFrames;
        if (m_pushedFrames.load(std::memory_order_acquire) - m_playedFrames < wanted)
            return;
        m_starved = false;
    }
    int written = 0;
    while (written < frames) {
        Chunk* chunk = m_fifo.front();
        if (!chunk) {
            m_starved = true;
            break;
        }
        const int take = std::min(chunk->frames - m_position, frames - written);
        for (int i = 0; i < take; ++i)
            out[written + i] += chunk->samples[std::size_t(m_position + i)];
        written += take;
        m_position += take;
        m_playedFrames += take;
        if (m_position >= chunk->frames) {
            m_fifo.pop();
            m_position = 0;
        }
    }
}

} // namespace vemira
