#include "audio/CallAudioRecorder.h"

#include "audio/AudioFiles.h"
#include "audio/AudioFlowHealth.h"
#include "audio/AudioFormats.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <sys/stat.h>
#include <vector>

namespace vemira {

namespace {

bool ownerOnly(QFileDevice& file)
{
    return ::fchmod(file.handle(), S_IRUSR | S_IWUSR) == 0;
}

AppError createError(const QString& path, const QString& reason)
{
    return AppError(QStringLiteral("Impossible de créer l’enregistrement « ") +
                    QFileInfo(path).fileName() + QStringLiteral(" » : ") + reason +
                    QStringLiteral("."));
}

AppError writeError(const QString& reason)
{
    return AppError(QStringLiteral("L’enregistrement de l’appel n’a pas pu être écrit : ") +
                    reason + QStringLiteral("."));
}

} // namespace

Result<std::unique_ptr<CallAudioRecorder>> CallAudioRecorder::create(const QString& path,
                                                                     TimeSource clock)
{
    if (!clock)
        clock = &AudioFlowHealth::processUptime;
    const QString folder = QFileInfo(path).absolutePath();
    if (!QDir().mkpath(folder))
        return AppError(QStringLiteral("Impossible de créer le dossier des enregistrements « ") +
                        folder + QStringLiteral(" »."));
    QFile::setPermissions(folder,
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);

    std::unique_ptr<CallAudioRecorder> recorder(new CallAudioRecorder(path, std::move(clock)));
    for (int t = 0; t < 2; ++t) {
        auto& track = recorder->m_tracks[std::size_t(t)];
        track->file = std::make_unique<QFile>(recorder->m_temporary[std::size_t(t)]);
        if (!track->file->open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            !ownerOnly(*track->file) ||
            track->file->write(AudioFiles::cafHeader(kRate)) != AudioFiles::kCafHeaderBytes) {
            const QString reason = track->file->errorString();
            for (auto& opened : recorder->m_tracks)
                if (opened->file && opened->file->isOpen())
                    opened->file->remove();
            return createError(recorder->m_temporary[std::size_t(t)], reason);
        }
    }
    recorder->m_worker = std::thread([raw = recorder.get()] { raw->run(); });
    return recorder;
}

std::array<QString, 2> CallAudioRecorder::temporaryFor(const QString& url)
{
    return {url + QStringLiteral(".input.caf"), url + QStringLiteral(".voice.caf")};
}

QString CallAudioRecorder::droppedMessage(std::int64_t blocks)
{
    return QStringLiteral("Enregistrement incomplet : %1 bloc(s) audio perdu(s), l’écriture sur "
                          "le disque ayant pris trop de retard.")
        .arg(blocks);
}

CallAudioRecorder::CallAudioRecorder(QString url, TimeSource clock)
    : m_url(std::move(url)), m_clock(std::move(clock))
{
    m_origin = m_clock();
    m_temporary = temporaryFor(m_url);
    for (auto& track : m_tracks)
        track = std::make_unique<Track>();
}

CallAudioRecorder::~CallAudioRecorder()
{
    {
        std::lock_guard guard(m_jobsLock);
        m_quit = true;
    }
    m_jobsChanged.notify_one();
    if (m_worker.joinable())
        m_worker.join();
}

void CallAudioRecorder::append(const QByteArray& bytes, int track)
{
    append(bytes.constData(), int(bytes.size()), track);
}

void CallAudioRecorder::append(const char* bytes, int byteCount, int track)
{
    const double elapsed = m_clock() - m_origin;
    if (track < 0 || track > 1 || byteCount < 2)
        return;
    Track& t = *m_tracks[std::size_t(track)];
    const auto frames = std::size_t(byteCount / 2);
    const std::uint64_t free =
        kQueueFrames - (t.written - t.consumed.load(std::memory_order_acquire));
    Block* block = frames <= free ? t.fifo.beginPush() : nullptr;
    if (!block) {
        m_dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    for (std::size_t i = 0; i < frames; ++i)
        t.ring[(t.written + i) & (kQueueFrames - 1)] = readWire(bytes + 2 * i);
    t.written += frames;
    block->elapsed = elapsed;
    block->frames = int(frames);
    t.fifo.commitPush(); // publishes the samples with the header
    t.pushed.fetch_add(1, std::memory_order_release);
}

void CallAudioRecorder::finish(Completion completion)
{
    const std::array<std::uint64_t, 2> counts = {
        m_tracks[0]->pushed.load(std::memory_order_acquire),
        m_tracks[1]->pushed.load(std::memory_order_acquire)};
    {
        std::lock_guard guard(m_jobsLock);
        m_jobs.push_back(
            [this, counts, completion = std::move(completion)] { doFinish(counts, completion); });
    }
    m_jobsChanged.notify_one();
}

void CallAudioRecorder::run()
{
    for (;;) {
        std::function<void()> job;
        bool quit = false;
        {
            std::unique_lock guard(m_jobsLock);
            // Appends never signal (they come from audio threads): look every 20 ms.
            m_jobsChanged.wait_for(guard, std::chrono::milliseconds(20),
                                   [this] { return m_quit || !m_jobs.empty(); });
            if (!m_jobs.empty()) {
                job = std::move(m_jobs.front());
                m_jobs.pop_front();
            } else {
                quit = m_quit;
            }
        }
        if (job) {
            job();
            continue;
        }
        for (int t = 0; t < 2; ++t)
            drain(t, ~std::uint64_t(0));
        if (quit)
            return;
    }
}

void CallAudioRecorder::drain(int track, std::uint64_t upTo)
{
    Track& t = *m_tracks[std::size_t(track)];
    while (t.drained < upTo) {
        Block* block = t.fifo.front();
        if (!block)
            return;
        if (!m_closed && !m_failure)
            writeBlock(track, *block);
        else
            skipBlock(track, *block);
        t.fifo.pop();
        ++t.drained;
    }
}

bool CallAudioRecorder::writeSamples(int track, const float* samples, int frames)
{
    Track& t = *m_tracks[std::size_t(track)];
    const qint64 bytes = qint64(frames) * 4;
    if (t.file->write(reinterpret_cast<const char*>(samples), bytes) != bytes) {
        m_failure = writeError(t.file->errorString());
        return false;
    }
    t.length += frames;
    return true;
}

void CallAudioRecorder::skipBlock(int track, const Block& block)
{
    Track& t = *m_tracks[std::size_t(track)];
    t.consumed.fetch_add(std::uint64_t(block.frames), std::memory_order_release);
}

void CallAudioRecorder::writeBlock(int track, const Block& block)
{
    Track& t = *m_tracks[std::size_t(track)];
    const auto end = std::int64_t(std::floor(block.elapsed * kRate));
    const std::int64_t target = std::max<std::int64_t>(0, end - block.frames);
    static_assert(std::endian::native == std::endian::little,
                  "track files store host floats as little-endian");
    std::array<float, kBlockFrames> buffer{};
    bool ok = true;
    while (ok && t.length < target) {
        const int silence = int(std::min<std::int64_t>(target - t.length, kBlockFrames));
        ok = writeSamples(track, buffer.data(), silence);
    }
    std::uint64_t from = t.consumed.load(std::memory_order_relaxed);
    for (int done = 0; ok && done < block.frames;) {
        const int take = std::min(block.frames - done, kBlockFrames);
        for (int i = 0; i < take; ++i)
            buffer[std::size_t(i)] =
                float(t.ring[(from + std::uint64_t(i)) & (kQueueFrames - 1)]) / 32768.0f;
        ok = writeSamples(track, buffer.data(), take);
        from += std::uint64_t(take);
        done += take;
    }
    skipBlock(track, block);
}

void CallAudioRecorder::doFinish(std::array<std::uint64_t, 2> counts, const Completion& completion)
{
    if (m_closed)
        return;
    drain(0, counts[0]);
    drain(1, counts[1]);
    m_closed = true;
    for (auto& track : m_tracks)
        track->file->close();
    // After a write failure what reached the disk is still the call: it becomes the
    // recording, said to be incomplete.
    Result<QString> result = mixTracks(m_url, m_temporary);
    if (m_failure) {
        if (result)
            m_incomplete = m_failure->message();
        else if (result.error().message() == nothingRecordedMessage())
            result = *m_failure;
    }
    if (const std::int64_t dropped = droppedBlocks(); dropped > 0 && result)
        m_incomplete =
            m_incomplete ? *m_incomplete + u' ' + droppedMessage(dropped) : droppedMessage(dropped);
    if (completion)
        completion(std::move(result));
}

Result<QString> CallAudioRecorder::mixTracks(const QString& url,
                                             const std::array<QString, 2>& tracks)
{
    std::array<std::unique_ptr<QFile>, 2> readers;
    std::array<std::int64_t, 2> lengths{};
    for (int t = 0; t < 2; ++t) {
        auto reader = std::make_unique<QFile>(tracks[std::size_t(t)]);
        // A track that is missing or holds only part of its header counts as silence.
        if (!reader->open(QIODevice::ReadOnly) || reader->size() < AudioFiles::kCafHeaderBytes ||
            !reader->seek(AudioFiles::kCafHeaderBytes)) {
            lengths[std::size_t(t)] = 0;
        } else {
            lengths[std::size_t(t)] = (reader->size() - AudioFiles::kCafHeaderBytes) / 4;
        }
        readers[std::size_t(t)] = std::move(reader);
    }
    const auto removeTracks = [&] {
        for (int t = 0; t < 2; ++t) {
            readers[std::size_t(t)]->close();
            QFile::remove(tracks[std::size_t(t)]);
        }
    };
    const std::int64_t total = std::max(lengths[0], lengths[1]);
    if (total < 1) {
        removeTracks();
        return AppError(nothingRecordedMessage());
    }

    // When the final file cannot be written the tracks stay: the next start tries again.
    QSaveFile out(url);
    if (!out.open(QIODevice::WriteOnly) || !ownerOnly(out))
        return createError(url, out.errorString());
    if (out.write(AudioFiles::wavFloatHeader(kRate, total)) != AudioFiles::kWavHeaderBytes)
        return writeError(out.errorString());

    std::vector<float> mixed(kBlockFrames);
    std::vector<float> input(kBlockFrames);
    for (std::int64_t position = 0; position < total; position += kBlockFrames) {
        const int frames = int(std::min<std::int64_t>(kBlockFrames, total - position));
        std::fill(mixed.begin(), mixed.begin() + frames, 0.0f);
        for (int t = 0; t < 2; ++t) {
            const std::int64_t left = lengths[std::size_t(t)] - position;
            if (left <= 0)
                continue;
            const int take = int(std::min<std::int64_t>(frames, left));
            const qint64 bytes = qint64(take) * 4;
            if (readers[std::size_t(t)]->read(reinterpret_cast<char*>(input.data()), bytes) !=
                bytes)
                return writeError(readers[std::size_t(t)]->errorString());
            for (int i = 0; i < take; ++i)
                mixed[std::size_t(i)] += input[std::size_t(i)] * kMixWeight;
        }
        const qint64 bytes = qint64(frames) * 4;
        if (out.write(reinterpret_cast<const char*>(mixed.data()), bytes) != bytes)
            return writeError(out.errorString());
    }
    if (!out.commit())
        return writeError(out.errorString());
    removeTracks();
    return url;
}

} // namespace vemira
