// The realtime audio paths per captured block (2,048 frames at 24 kHz, 4,096 bytes of PCM):
// up, from PCM to the bytes of one input_audio_buffer.append text frame; down, from one
// response.output_audio.delta text to PCM handed to the owner. Compared in the same run with
// Node.js doing the same work, and expressed as a share of one core at real time.
// Run a Release build: cmake -DVEMIRA_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=Release.
#include "ai/RealtimeClient.h"
#include "ai/RealtimeProtocol.h"
#include "ai/WireBase64.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <algorithm>
#include <cstdio>
#include <ctime>

using namespace vemira;

namespace {

constexpr int kBytes = 4096;
constexpr double kBlocksPerSecond = 24000.0 / 2048.0;

// CPU time of this thread: other work on a busy machine then shows up far less than in wall
// time (Node.js is measured in CPU time too).
double cpuSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

// Nanoseconds of CPU per call: the best of several short runs.
template <typename Work> double nsPerCall(Work&& work, int runs = 9, double seconds = 0.15)
{
    for (int i = 0; i < 2000; ++i)
        work();
    double best = 1e300;
    for (int run = 0; run < runs; ++run) {
        long calls = 0;
        const double start = cpuSeconds();
        double elapsed = 0;
        do {
            for (int i = 0; i < 100; ++i)
                work();
            calls += 100;
            elapsed = cpuSeconds() - start;
        } while (elapsed < seconds);
        best = std::min(best, elapsed * 1e9 / double(calls));
    }
    return best;
}

volatile qsizetype g_sink = 0;

struct NodeFigures {
    double uplink = 0;
    double downlink = 0;
};

std::optional<NodeFigures> runNode()
{
    const QString node = QStandardPaths::findExecutable(QStringLiteral("node"));
    if (node.isEmpty())
        return std::nullopt;
    QProcess process;
    process.start(node, {QStringLiteral(VEMIRA_BENCH_AI_JS)});
    if (!process.waitForFinished(60'000) || process.exitCode() != 0)
        return std::nullopt;
    const QJsonObject figures = QJsonDocument::fromJson(process.readAllStandardOutput()).object();
    return NodeFigures{figures.value(QLatin1String("uplink")).toDouble(),
                       figures.value(QLatin1String("downlink")).toDouble()};
}

} // namespace

int main(int argc, char** argv)
{
    // The receive path needs an open session; a refused address opens one without a socket.
    qputenv("VEMIRA_REALTIME_URL", "ws://192.0.2.1:9");
    qputenv("QT_LOGGING_RULES", "*.warning=false");
    QCoreApplication app(argc, argv);

    QByteArray pcm(kBytes, Qt::Uninitialized);
    for (int i = 0; i < kBytes; ++i)
        pcm[i] = char((i * 37) ^ (i >> 3));

    const double uplink = nsPerCall([&] {
        const QByteArray wire = realtime::audioAppendFrame(pcm).toUtf8();
        g_sink = g_sink + wire.size();
    });

    ManualClock clock;
    RealtimeClient client(clock);
    client.onAudio = [](const QByteArray& audio) { g_sink = g_sink + audio.size(); };
    client.connect(QStringLiteral("sk-bench"), QStringLiteral("gpt-realtime"),
                   QStringLiteral("marin"), QStringLiteral("Consignes"));
    // As QWebSocket delivers a text message: a QString.
    const QString delta = QString::fromUtf8(
        QJsonDocument(
            QJsonObject{{QStringLiteral("type"), QStringLiteral("response.output_audio.delta")},
                        {QStringLiteral("event_id"), QStringLiteral("event_1")},
                        {QStringLiteral("response_id"), QStringLiteral("resp_1")},
                        {QStringLiteral("item_id"), QStringLiteral("item_1")},
                        {QStringLiteral("output_index"), 0},
                        {QStringLiteral("content_index"), 0},
                        {QStringLiteral("delta"), QString::fromLatin1(pcm.toBase64())}})
            .toJson(QJsonDocument::Compact));
    const qsizetype before = g_sink;
    const double downlink = nsPerCall([&] { client.receiveText(delta); });
    if (qEnvironmentVariableIsSet("VEMIRA_BENCH_DETAIL")) {
        const QString b64 = QString::fromLatin1(pcm.toBase64());
        std::printf(
            "  detail: decode %.0f ns, scan %.0f ns, encode+utf8 %.0f ns, utf8 %.0f ns\n",
            nsPerCall([&] { g_sink = g_sink + realtime::decodeBase64(b64)->size(); }),
            nsPerCall([&] { g_sink = g_sink + realtime::scanAudioDelta(delta).pcm.size(); }),
            nsPerCall([&] { g_sink = g_sink + realtime::audioAppendFrame(pcm).size(); }),
            nsPerCall([&] { g_sink = g_sink + delta.toUtf8().size(); }));
    }
    if (g_sink == before) {
        std::fprintf(stderr, "bench_ai: the downlink path delivered no audio\n");
        return 1;
    }

    const double perSecond = (uplink + downlink) * kBlocksPerSecond;
    std::printf("realtime audio, one block = 2048 frames at 24 kHz (4096 bytes PCM)\n");
    std::printf("  uplink   PCM -> input_audio_buffer.append frame   %8.0f ns/block\n", uplink);
    std::printf("  downlink output_audio.delta text -> PCM          %8.0f ns/block\n", downlink);
    std::printf("  both directions at real time: %.0f ns per s of audio = %.4f%% of one core\n",
                perSecond, perSecond / 1e7);

    if (const auto node = runNode()) {
        std::printf("  Node.js %s (JSON.stringify + Buffer base64, same run):\n",
                    qPrintable(QStandardPaths::findExecutable(QStringLiteral("node"))));
        std::printf("    uplink   %8.0f ns/block   C++ is %.1fx faster\n", node->uplink,
                    node->uplink / uplink);
        std::printf("    downlink %8.0f ns/block   C++ is %.1fx faster\n", node->downlink,
                    node->downlink / downlink);
        std::printf("    both     %8.0f ns/block   ratio %.1fx\n", node->uplink + node->downlink,
                    (node->uplink + node->downlink) / (uplink + downlink));
    } else {
        std::printf("  Node.js not found (or failed): comparison skipped\n");
    }
    return 0;
}
