#pragma once

#include "audio/SpscFifo.h"
#include "core/AppError.h"

#include <QString>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

class QFile;

namespace vemira {

// Records one conversation as two tracks (0: the far side as captured, 1: what left the mixer)
// in temporary files next to the final one, lined up on a common time origin, then mixes them
// at half level each into a 32-bit float 24 kHz mono WAV (owner-only).
//
// Threads: create() and finish() on the main thread; append() on the audio threads, one thread
// per track at a time, never blocking or allocating; every file operation on the recorder's own
// serial worker thread. The completion of finish() runs on that worker: hop to the main thread
// yourself.
class CallAudioRecorder {
public:
    using TimeSource = std::function<double()>;
    using Completion = std::function<void(Result<QString> file)>;

    static constexpr double kRate = 24000.0;
    static constexpr int kBlockFrames = 4096;
    static constexpr float kMixWeight = 0.5f;
    // How far the writer may fall behind the audio, per track, whatever the devices' block
    // size (2^19 frames: 21.8 s at 24 kHz), and how many blocks that many seconds may hold
    // when a device delivers 2.5 ms blocks.
    static constexpr std::size_t kQueueFrames = std::size_t(1) << 19;
    static constexpr std::size_t kQueueBlocks = 8192;

    // Creates the folder of `path` (0700) and both temporary tracks (0600).
    // `clock` gives monotonic seconds and is read on audio threads: it must be thread-safe.
    static Result<std::unique_ptr<CallAudioRecorder>> create(const QString& path,
                                                             TimeSource clock = {});
    ~CallAudioRecorder(); // waits for queued work, including a pending finish

    // `bytes` are wire samples (s16 LE, 24 kHz, mono). Returns at once.
    void append(const char* bytes, int byteCount, int track);
    void append(const QByteArray& bytes, int track);

    // Queued after every append made before it. The second call does nothing at all.
    void finish(Completion completion);

    const QString& url() const { return m_url; }
    const std::array<QString, 2>& temporary() const { return m_temporary; }
    static std::array<QString, 2> temporaryFor(const QString& url);
    // Blocks lost because the worker fell behind by many seconds (never expected).
    std::int64_t droppedBlocks() const { return m_dropped.load(std::memory_order_relaxed); }
    // Set, before the completion runs, when the recording delivered is incomplete: blocks
    // dropped, or a write failure after which what was written so far became the recording.
    std::optional<QString> incompleteReason() const { return m_incomplete; }
    static QString droppedMessage(std::int64_t blocks);

    // Mixes tracks left on disk (a crash during a call) into `url`, then removes them.
    // "Aucun son…" when they hold nothing (they are removed as well).
    static Result<QString> mixTracks(const QString& url, const std::array<QString, 2>& tracks);

    static QString nothingRecordedMessage()
    {
        return QStringLiteral("Aucun son n’a été reçu pour cet enregistrement.");
    }

private:
    struct Block {
        double elapsed = 0; // end time of the block, seconds since origin
        int frames = 0;     // its samples are the next ones in the track's ring
    };
    // Samples in a ring sized in time, block headers in a queue beside it: a device's block
    // size changes how many headers are used, not how many seconds fit.
    struct Track {
        SpscFifo<Block, kQueueBlocks> fifo;
        std::unique_ptr<std::int16_t[]> ring{new std::int16_t[kQueueFrames]};
        std::uint64_t written = 0;              // samples put in the ring, audio thread
        std::atomic<std::uint64_t> consumed{0}; // samples taken from it, worker
        std::atomic<std::uint64_t> pushed{0};
        std::uint64_t drained = 0; // worker
        std::unique_ptr<QFile> file;
        std::int64_t length = 0; // frames written, worker
    };

    CallAudioRecorder(QString url, TimeSource clock);
    void run();
    void drain(int track, std::uint64_t upTo);
    void writeBlock(int track, const Block& block);
    void skipBlock(int track, const Block& block);
    bool writeSamples(int track, const float* samples, int frames);
    void doFinish(std::array<std::uint64_t, 2> counts, const Completion& completion);

    QString m_url;
    std::array<QString, 2> m_temporary;
    TimeSource m_clock;
    double m_origin = 0;
    std::array<std::unique_ptr<Track>, 2> m_tracks;
    std::atomic<std::int64_t> m_dropped{0};

    // Worker state.
    bool m_closed = false;
    std::optional<AppError> m_failure;
    std::optional<QString> m_incomplete;

    std::mutex m_jobsLock;
    std::condition_variable m_jobsChanged;
    std::deque<std::function<void()>> m_jobs;
    bool m_quit = false;
    std::thread m_worker;
};

} // namespace vemira
