#pragma once

#include "audio/SpscFifo.h"

#include <QByteArray>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace vemira {

// A block of play-format samples scheduled on a BufferPlayer.
struct PlayerBuffer {
    std::vector<float> samples;
    std::int64_t generation = 0;
    bool reportCompletion = false;
};

// Plays buffers scheduled by the main thread, in order, on the render thread.
//
// Buffers are allocated and freed on the main thread only: the render thread receives them
// through one FIFO and hands finished ones back through another, so it never allocates or
// frees. stop() travels through the same FIFO as a flush marker, so it drops exactly what was
// scheduled before it and nothing scheduled after it.
class BufferPlayer {
public:
    // Render thread: a buffer with reportCompletion finished playing or was flushed.
    using Completion = std::function<void(std::int64_t generation)>;

    static constexpr std::size_t kCapacity = 4096;

    explicit BufferPlayer(Completion onPlayed = {});
    ~BufferPlayer(); // the render thread must be stopped

    // Main thread.
    bool schedule(std::unique_ptr<PlayerBuffer> buffer);
    void play() { m_playing.store(true, std::memory_order_release); }
    void stop();
    bool isPlaying() const { return m_playing.load(std::memory_order_acquire); }
    // Frees what the render thread has finished with.
    void collect();
    // Buffers scheduled and not yet handed back (main thread view).
    std::size_t outstanding() const { return m_outstanding; }

    // Render thread: adds up to `frames` samples into `out`.
    void mixInto(float* out, int frames);

private:
    struct Item {
        PlayerBuffer* buffer = nullptr; // null: flush marker
    };
    void finish(PlayerBuffer* buffer);
    void flushLocal();

    Completion m_onPlayed;
    std::atomic<bool> m_playing{false};
    SpscFifo<Item, 2 * kCapacity> m_incoming;
    SpscFifo<PlayerBuffer*, 2 * kCapacity> m_retired;
    std::size_t m_outstanding = 0; // main thread

    // Render thread: buffers received, oldest first, in a fixed ring (no allocation).
    std::vector<PlayerBuffer*> m_queue;
    std::size_t m_queueHead = 0;
    std::size_t m_queueSize = 0;
    std::size_t m_position = 0; // within the oldest buffer
};

// A stream of wire audio pushed by one audio thread (another engine's capture) and played by
// the render thread: the manager's voice into the call, the caller into the manager's ears.
// Fixed chunks in an SPSC FIFO, so neither side allocates; a full FIFO drops the newest chunk.
class FeedPlayer {
public:
    static constexpr int kChunkFrames = 2048;
    static constexpr std::size_t kChunks = 64; // about 5 s at 24 kHz
    // The two sides run on different device clocks: after running dry, wait for one whole
    // producer block plus this margin (85 ms) before playing again, so jitter between them
    // does not chop the voice.
    static constexpr std::int64_t kPrefillFrames = 2048;

    // Producer thread (one at a time).
    void pushWire(const char* bytes, int byteCount);
    void pushWire(const QByteArray& bytes) { pushWire(bytes.constData(), int(bytes.size())); }

    // Main thread.
    void play() { m_playing.store(true, std::memory_order_release); }
    void stop();
    bool isPlaying() const { return m_playing.load(std::memory_order_acquire); }
    std::int64_t dropped() const { return m_dropped.load(std::memory_order_relaxed); }

    // Render thread (one at a time).
    void mixInto(float* out, int frames);

private:
    struct Chunk {
        std::array<float, kChunkFrames> samples;
        int frames = 0;
    };
    SpscFifo<Chunk, kChunks> m_fifo;
    std::atomic<bool> m_playing{false};
    std::atomic<std::uint32_t> m_flushRequests{0};
    std::uint32_t m_flushesSeen = 0; // render thread
    int m_position = 0;              // render thread, within the front chunk
    std::atomic<std::int64_t> m_dropped{0};
    std::atomic<std::int64_t> m_pushedFrames{0}; // producer
    std::atomic<std::int64_t> m_largestPush{0};  // producer
    std::int64_t m_playedFrames = 0;             // render thread, includes flushed frames
    bool m_starved = true;                       // render thread
};

} // namespace vemira
