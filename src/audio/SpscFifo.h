#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <new>

namespace vemira {

// Bounded single-producer / single-consumer queue: one thread pushes, one other thread pops,
// neither ever blocks or allocates. Slots live in the queue, so a producer can fill a slot in
// place (beginPush / commitPush) and a consumer can read it in place (front / pop).
//
// The classic Lamport ring with acquire/release indices: the producer publishes a slot by a
// release store of `m_tail` after writing it; the consumer frees it by a release store of
// `m_head` after reading it. Indices grow without wrapping (64-bit) and are reduced modulo
// Capacity, so full and empty are told apart without a spare slot.
template <typename T, std::size_t Capacity> class SpscFifo {
    static_assert(Capacity > 0 && (Capacity & (Capacity - 1)) == 0,
                  "capacity must be a power of two");

public:
    // Producer thread. Null when full.
    T* beginPush()
    {
        const auto tail = m_tail.load(std::memory_order_relaxed);
        if (tail - m_headCache == Capacity) {
            m_headCache = m_head.load(std::memory_order_acquire);
            if (tail - m_headCache == Capacity)
                return nullptr;
        }
        return &m_slots[tail & (Capacity - 1)];
    }
    // Producer thread, after a successful beginPush.
    void commitPush()
    {
        m_tail.store(m_tail.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }

    bool push(const T& value)
    {
        T* slot = beginPush();
        if (!slot)
            return false;
        *slot = value;
        commitPush();
        return true;
    }

    // Consumer thread. Null when empty.
    T* front()
    {
        const auto head = m_head.load(std::memory_order_relaxed);
        if (head == m_tailCache) {
            m_tailCache = m_tail.load(std::memory_order_acquire);
            if (head == m_tailCache)
                return nullptr;
        }
        return &m_slots[head & (Capacity - 1)];
    }
    // Consumer thread, after a successful front.
    void pop()
    {
        m_head.store(m_head.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }

    bool pop(T& out)
    {
        T* slot = front();
        if (!slot)
            return false;
        out = *slot;
        pop();
        return true;
    }

    // Approximate from any thread; exact from either side when the other is idle.
    std::size_t size() const
    {
        return std::size_t(m_tail.load(std::memory_order_acquire) -
                           m_head.load(std::memory_order_acquire));
    }
    static constexpr std::size_t capacity() { return Capacity; }

private:
    static constexpr std::size_t kLine = 64;
    alignas(kLine) std::atomic<unsigned long long> m_head{0}; // written by the consumer
    unsigned long long m_tailCache = 0;                       // consumer's view of m_tail
    alignas(kLine) std::atomic<unsigned long long> m_tail{0}; // written by the producer
    unsigned long long m_headCache = 0;                       // producer's view of m_head
    alignas(kLine) std::array<T, Capacity> m_slots{};
};

// Latest-value mailbox (triple buffer): a writer publishes whole values, a reader picks up the
// newest one whenever it looks; neither blocks. Used to hand filter settings to the audio thread.
template <typename T> class LatestValue {
public:
    // Writer thread.
    void publish(const T& value)
    {
        m_slots[m_back] = value;
        const int old = m_middle.exchange(m_back | kFresh, std::memory_order_acq_rel);
        m_back = old & kIndex;
    }
    // Reader thread: true and `out` updated when a newer value was published since last time.
    bool take(T& out)
    {
        if (!(m_middle.load(std::memory_order_relaxed) & kFresh))
            return false;
        const int old = m_middle.exchange(m_front, std::memory_order_acq_rel);
        m_front = old & kIndex;
        out = m_slots[m_front];
        return true;
    }

private:
    static constexpr int kFresh = 4;
    static constexpr int kIndex = 3;
    std::array<T, 3> m_slots{};
    int m_back = 0;               // writer's slot
    std::atomic<int> m_middle{1}; // shared slot, with the fresh bit
    int m_front = 2;              // reader's slot
};

} // namespace vemira
