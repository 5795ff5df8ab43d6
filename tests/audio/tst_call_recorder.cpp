// The call recorder against real files, read back by sox as a user's player would.
#include "audio/AudioFormats.h"
#include "audio/CallAudioRecorder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <atomic>
#include <cstring>
#include <future>
#include <sys/stat.h>
#include <thread>

using namespace Qt::StringLiterals;
using namespace vemira;

namespace {

QByteArray wire(int frames, std::int16_t value)
{
    QByteArray bytes(frames * 2, '\0');
    for (int i = 0; i < frames; ++i)
        writeWire(bytes.data() + 2 * i, value);
    return bytes;
}

// Runs the recorder's finish and waits for its completion (on the worker).
Result<QString> finishAndWait(CallAudioRecorder& recorder)
{
    auto promise = std::make_shared<std::promise<Result<QString>>>();
    auto future = promise->get_future();
    recorder.finish([promise](Result<QString> result) { promise->set_value(std::move(result)); });
    if (future.wait_for(std::chrono::seconds(10)) != std::future_status::ready)
        return AppError(u"timeout"_s);
    return future.get();
}

QString soxi(const QString& option, const QString& file)
{
    QProcess process;
    process.start(u"soxi"_s, {option, file});
    process.waitForFinished(10000);
    return QString::fromUtf8(process.readAllStandardOutput()).trimmed();
}

// The samples as sox decodes them (raw 32-bit float).
std::vector<float> soxSamples(const QString& file)
{
    QProcess process;
    process.start(u"sox"_s, {file, u"-t"_s, u"f32"_s, u"-"_s});
    process.waitForFinished(10000);
    const QByteArray raw = process.readAllStandardOutput();
    std::vector<float> samples(std::size_t(raw.size()) / 4);
    std::memcpy(samples.data(), raw.constData(), samples.size() * 4);
    return samples;
}

unsigned mode(const QString& path)
{
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return 0;
    return info.st_mode & 0777;
}

thread_local double threadTime = 0;

} // namespace

class CallRecorderTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void tracksAreAlignedOnTheirCommonOriginAndMixedAtHalfLevel();
    void filesAreOwnerOnlyAndNamedNextToTheRecording();
    void finishOnceAndNothingRecorded();
    void failuresAreReported();
    void appendsFromTwoAudioThreadsAreAllKept();
    void queueHoldsSecondsWhateverTheBlockSize();
};

void CallRecorderTest::initTestCase()
{
    if (QStandardPaths::findExecutable(u"soxi"_s).isEmpty())
        QFAIL("sox is needed (apt package sox)");
}

void CallRecorderTest::tracksAreAlignedOnTheirCommonOriginAndMixedAtHalfLevel()
{
    QTemporaryDir dir;
    std::atomic<double> now{500.0};
    auto clock = [&now] { return now.load(); };
    const QString path = dir.filePath(u"a/b/appel.wav"_s);
    auto created = CallAudioRecorder::create(path, clock);
    QVERIFY2(created, created ? "" : qPrintable(created.error().message()));
    auto recorder = std::move(created).value();

    // First caller block 2.0 s after creation holding 0.1 s: 45,600 frames of silence first.
    now = 502.0;
    recorder->append(wire(2400, 16384), 0);
    // The voice track: 0.5 s ending at 1.0 s, then a block that arrives late (its time has
    // already been written) and is appended right after, not dropped.
    now = 501.0;
    recorder->append(wire(12000, -8192), 1);
    now = 500.2;
    recorder->append(wire(2400, 8192), 1);

    const Result<QString> result = finishAndWait(*recorder);
    QVERIFY2(result, result ? "" : qPrintable(result.error().message()));
    QCOMPARE(result.value(), path);

    QCOMPARE(soxi(u"-r"_s, path), u"24000"_s);
    QCOMPARE(soxi(u"-c"_s, path), u"1"_s);
    QCOMPARE(soxi(u"-b"_s, path), u"32"_s);
    QCOMPARE(soxi(u"-e"_s, path), u"Floating Point PCM"_s);
    QCOMPARE(soxi(u"-s"_s, path), u"48000"_s);

    const std::vector<float> mixed = soxSamples(path);
    QCOMPARE(mixed.size(), std::size_t(48000));
    // Voice track: silence up to 0.5 s, -8192 for 0.5 s at half level, then the late block.
    QCOMPARE(mixed[0], 0.0f);
    QCOMPARE(mixed[11999], 0.0f);
    QCOMPARE(mixed[12000], -0.125f);
    QCOMPARE(mixed[23999], -0.125f);
    QCOMPARE(mixed[24000], 0.125f);
    QCOMPARE(mixed[26399], 0.125f);
    QCOMPARE(mixed[26400], 0.0f);
    // Caller track: silent until frame 45,600, then 16384 at half level.
    QCOMPARE(mixed[45599], 0.0f);
    QCOMPARE(mixed[45600], 0.25f);
    QCOMPARE(mixed[47999], 0.25f);

    // Temporary tracks are gone once mixed.
    for (const QString& temporary : recorder->temporary())
        QVERIFY(!QFile::exists(temporary));
}

void CallRecorderTest::filesAreOwnerOnlyAndNamedNextToTheRecording()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"Enregistrements/2026/appel.wav"_s);
    auto recorder = std::move(CallAudioRecorder::create(path)).value();
    QCOMPARE(recorder->temporary()[0], path + u".input.caf"_s);
    QCOMPARE(recorder->temporary()[1], path + u".voice.caf"_s);
    for (const QString& temporary : recorder->temporary())
        QCOMPARE(mode(temporary), 0600u);
    QCOMPARE(mode(QFileInfo(path).absolutePath()), 0700u);

    // A voice track alone: the mix has its length at half level.
    recorder->append(wire(4800, 32767), 1);
    const auto result = finishAndWait(*recorder);
    QVERIFY(result);
    QCOMPARE(mode(path), 0600u);
    const auto samples = soxSamples(path);
    QVERIFY(samples.size() >= 4800);
    QCOMPARE(samples.back(), 0.5f * 32767.0f / 32768.0f);
}

void CallRecorderTest::finishOnceAndNothingRecorded()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"vide.wav"_s);
    auto recorder = std::move(CallAudioRecorder::create(path)).value();
    // Empty and one-byte blocks, or a third track, record nothing.
    recorder->append(QByteArray(), 0);
    recorder->append(QByteArray(1, '\x7f'), 1);
    recorder->append(wire(100, 1000), 2);
    const auto result = finishAndWait(*recorder);
    QVERIFY(!result);
    QCOMPARE(result.error().message(), u"Aucun son n’a été reçu pour cet enregistrement."_s);
    QVERIFY(!QFile::exists(path));
    // No recording: no temporary track left behind either.
    for (const QString& track : recorder->temporary())
        QVERIFY(!QFile::exists(track));

    // The second finish does nothing, not even call its completion; later appends are ignored.
    std::atomic<int> calls{0};
    recorder->append(wire(2400, 1000), 0);
    recorder->finish([&calls](Result<QString>) { calls.fetch_add(1); });
    recorder.reset(); // waits for the queued work
    QCOMPARE(calls.load(), 0);
    QVERIFY(!QFile::exists(path));
}

void CallRecorderTest::failuresAreReported()
{
    QTemporaryDir dir;
    // The folder cannot be created under a plain file.
    QVERIFY(QFile(dir.filePath(u"fichier"_s)).open(QIODevice::WriteOnly));
    const auto refused = CallAudioRecorder::create(dir.filePath(u"fichier/x.wav"_s));
    QVERIFY(!refused);
    QVERIFY(refused.error().message().startsWith(
        u"Impossible de créer le dossier des enregistrements"_s));

    // The final file cannot be written (its name is taken by a folder): the error comes back
    // and the tracks are kept for another attempt by hand.
    const QString path = dir.filePath(u"pris.wav"_s);
    auto recorder = std::move(CallAudioRecorder::create(path)).value();
    QVERIFY(QDir().mkpath(path));
    recorder->append(wire(2400, 1000), 0);
    const auto result = finishAndWait(*recorder);
    QVERIFY(!result);
    QVERIFY(result.error().message().startsWith(u"Impossible de créer"_s));
    QVERIFY(QFile::exists(recorder->temporary()[0]));
}

void CallRecorderTest::appendsFromTwoAudioThreadsAreAllKept()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"fil.wav"_s);
    // Each audio thread keeps its own time, as a device clock would.
    auto recorder = std::move(CallAudioRecorder::create(path, [] { return threadTime; })).value();
    // Each side delivers 47 blocks of 1024 frames, each stamped at its end.
    auto side = [&](int track, std::int16_t value) {
        for (int block = 1; block <= 47; ++block) {
            threadTime = block * 1024 / 24000.0;
            recorder->append(wire(1024, value), track);
        }
    };
    std::thread caller(side, 0, 4096);
    std::thread voice(side, 1, 2048);
    caller.join();
    voice.join();
    QCOMPARE(recorder->droppedBlocks(), std::int64_t(0));
    const auto result = finishAndWait(*recorder);
    QVERIFY(result);
    const auto samples = soxSamples(path);
    // Every block of both tracks is in the mix, back to back, none doubled or lost.
    QCOMPARE(samples.size(), std::size_t(47 * 1024));
    const float both = 0.5f * (4096.0f + 2048.0f) / 32768.0f;
    QVERIFY(std::all_of(samples.begin(), samples.end(), [both](float v) { return v == both; }));
}

void CallRecorderTest::queueHoldsSecondsWhateverTheBlockSize()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"rafale.wav"_s);
    double now = 0;
    auto recorder = std::move(CallAudioRecorder::create(path, [&now] { return now; })).value();
    // Fifteen seconds of 10 ms device blocks arrive at once (the disk stalled meanwhile):
    // 1,500 blocks, all kept.
    for (int block = 1; block <= 1500; ++block) {
        now = block * 0.010;
        recorder->append(wire(240, 1000), 0);
    }
    QCOMPARE(recorder->droppedBlocks(), std::int64_t(0));
    // One block longer than the whole queue cannot be kept: it is counted, the rest stays.
    recorder->append(wire(int(CallAudioRecorder::kQueueFrames) + 1, 1000), 1);
    QCOMPARE(recorder->droppedBlocks(), std::int64_t(1));
    const auto result = finishAndWait(*recorder);
    QVERIFY(result);
    QCOMPARE(soxSamples(path).size(), std::size_t(1500 * 240));
    QCOMPARE(recorder->incompleteReason(),
             std::optional<QString>(
                 u"Enregistrement incomplet : 1 bloc(s) audio perdu(s), l’écriture sur le disque "
                 u"ayant pris trop de retard."_s));
}

QTEST_GUILESS_MAIN(CallRecorderTest)
#include "tst_call_recorder.moc"
