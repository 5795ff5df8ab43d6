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
// A single-producer single-consumer ring of samples sized in time, so a device that captures in
// 10 ms blocks holds as much as one that captures in 2,048-frame blocks; neither side allocates
// or blocks, and a full ring drops what does not fit of the newest push.
class FeedPlayer {
public:
    static constexpr std::int64_t kCapacityFrames = 131072; // 5.46 s at 24 kHz
    // The two sides run on different device clocks: after running dry, wait for one whole
    // producer block plus this margin (85 ms) before playing again, so jitter between them
    // does not chop the voice.
    static constexpr std::int64_t kPrefillFrames = 2048;

    FeedPlayer();

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

    // Frames pushed and not yet played (approximate from the main thread).
    std::int64_t queuedFrames() const
    {
        return m_written.load(std::memory_order_acquire) - m_read.load(std::memory_order_acquire);
    }

private:
    static_assert((kCapacityFrames & (kCapacityFrames - 1)) == 0, "a power of two");
    std::vector<float> m_ring;
    // Positions grow without wrapping; the producer publishes samples by a release store of
    // m_written after writing them, the consumer frees them by a release store of m_read.
    std::atomic<std::int64_t> m_written{0}; // producer
    std::atomic<std::int64_t> m_read{0};    // consumer
    std::atomic<bool> m_playing{false};
    std::atomic<std::uint32_t> m_flushRequests{0};
    std::uint32_t m_flushesSeen = 0; // render thread
    std::atomic<std::int64_t> m_dropped{0};
    std::atomic<std::int64_t> m_largestPush{0}; // producer
    bool m_starved = true;                      // render thread
};

} // namespace vemira
