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

CallAudioRecorder::CallAudioRecorder(QString url, TimeSource clock)
    : m_url(std::move(url)), m_clock(std::move(clock))
{
    m_origin = m_clock();
    m_temporary = {m_url + QStringLiteral(".input.caf"), m_url + QStringLiteral(".voice.caf")};
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
    int frames = byteCount / 2;
    int offset = 0;
    while (frames > 0) {
        const int take = std::min(frames, kBlockFrames);
        Block* block = t.fifo.beginPush();
        if (!block) {
            m_dropped.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        // A long block is cut into pieces that end where the whole would have reached.
        block->elapsed = elapsed - double(frames - take) / kRate;
        block->frames = take;
        for (int i = 0; i < take; ++i)
            block->samples[std::size_t(i)] = readWire(bytes + 2 * (offset + i));
        t.fifo.commitPush();
        t.pushed.fetch_add(1, std::memory_order_release);
        offset += take;
        frames -= take;
    }
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

void CallAudioRecorder::writeBlock(int track, const Block& block)
{
    Track& t = *m_tracks[std::size_t(track)];
    const auto end = std::int64_t(std::floor(block.elapsed * kRate));
    const std::int64_t target = std::max<std::int64_t>(0, end - block.frames);
    static_assert(std::endian::native == std::endian::little,
                  "track files store host floats as little-endian");
    std::array<float, kBlockFrames> buffer{};
    while (t.length < target) {
        const int silence = int(std::min<std::int64_t>(target - t.length, kBlockFrames));
        if (!writeSamples(track, buffer.data(), silence))
            return;
    }
    for (int i = 0; i < block.frames; ++i)
        buffer[std::size_t(i)] = float(block.samples[std::size_t(i)]) / 32768.0f;
    writeSamples(track, buffer.data(), block.frames);
}

void CallAudioRecorder::doFinish(std::array<std::uint64_t, 2> counts, const Completion& completion)
{
    if (m_closed)
        return;
    drain(0, counts[0]);
    drain(1, counts[1]);
    m_closed = true;
    Result<QString> result = m_failure ? Result<QString>(*m_failure) : mix();
    if (completion)
        completion(std::move(result));
}

Result<QString> CallAudioRecorder::mix()
{
    std::array<std::unique_ptr<QFile>, 2> readers;
    std::array<std::int64_t, 2> lengths{};
    for (int t = 0; t < 2; ++t) {
        m_tracks[std::size_t(t)]->file->close();
        auto reader = std::make_unique<QFile>(m_temporary[std::size_t(t)]);
        if (!reader->open(QIODevice::ReadOnly) || !reader->seek(AudioFiles::kCafHeaderBytes))
            return writeError(reader->errorString());
        lengths[std::size_t(t)] = (reader->size() - AudioFiles::kCafHeaderBytes) / 4;
        readers[std::size_t(t)] = std::move(reader);
    }
    const std::int64_t total = std::max(lengths[0], lengths[1]);
    if (total < 1)
        return AppError(nothingRecordedMessage());

    QSaveFile out(m_url);
    if (!out.open(QIODevice::WriteOnly) || !ownerOnly(out))
        return createError(m_url, out.errorString());
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
    for (int t = 0; t < 2; ++t) {
        readers[std::size_t(t)]->close();
        QFile::remove(m_temporary[std::size_t(t)]);
    }
    return m_url;
}

} // namespace vemira
