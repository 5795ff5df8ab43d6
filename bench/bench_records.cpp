// Figures for the records subsystem on this machine:
//   - a history of 5,000 calls of 30 lines: load, saveHistory after one note edit, and a plain
//     copy of the same bytes as the floor (goal: save ≤ 3× the floor and under 50 ms);
//   - the same save when another process (the `vemira` tool) rewrote the file meanwhile, so
//     the save reads it back and merges it first;
//   - the writes made during a call (its record kept on disk while the call lasts): one at
//     most every ProvisionalRecord::kSaveDelay seconds, each with a few more transcript lines,
//     beside the same history; the share of one core they take during a call;
//   - a dossier search over 50,000 records through the index the Conversations page and
//     `vemira search` run (goal: under 16 ms per query), and the index following one edit.
// Usage: bench_records [calls] [searchRecords]
#include "app/ProvisionalRecord.h"
#include "records/Dossiers.h"
#include "records/HistoryCodec.h"
#include "records/PrivateFiles.h"
#include "records/RecordsStore.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

using namespace vemira;

namespace {

const QStringList phrases = {
    QStringLiteral(
        "Bonjour, vous êtes bien au service de gestion locative, comment puis-je vous aider ?"),
    QStringLiteral(
        "Il y a une fuite sous l’évier de la cuisine depuis hier soir, ça goutte toujours."),
    QStringLiteral(
        "Pouvez-vous me confirmer votre nom, l’adresse exacte et le numéro du logement ?"),
    QStringLiteral(
        "C’est au 12 rue des Lilas, deuxième étage, appartement 4, au nom de Mme Durand."),
    QStringLiteral("La chaudière s’est arrêtée ce matin et il n’y a plus d’eau chaude dans la "
                   "salle de bains."),
    QStringLiteral(
        "Depuis quand le problème dure-t-il, et la situation vous paraît-elle urgente ?"),
    QStringLiteral(
        "Je peux être joint au 06 12 34 56 78 en fin de journée, après dix-huit heures."),
    QStringLiteral(
        "Je note tout cela, le gestionnaire prendra connaissance de votre message rapidement."),
};

CallRecord generated(QRandomGenerator& random, int lines, int index)
{
    CallRecord record = CallRecord::create(QDateTime::currentDateTime().addSecs(-index * 600),
                                           QStringLiteral("+33 6 %1 %2 %3 %4")
                                               .arg(random.bounded(10, 99))
                                               .arg(random.bounded(10, 99))
                                               .arg(random.bounded(10, 99))
                                               .arg(random.bounded(10, 99)),
                                           QStringLiteral("Appel entrant"));
    for (int l = 0; l < lines; ++l) {
        record.transcript.append(TranscriptLine::create(
            l % 2 ? Speaker::caller() : Speaker::assistant(),
            phrases[random.bounded(int(phrases.size()))] + QStringLiteral(" (%1)").arg(l)));
    }
    record.note = QStringLiteral("Rappeler le locataire, intervention à organiser.");
    if (random.bounded(3) == 0)
        record.dossier = QStringLiteral("SCI Lilas · logement %1").arg(random.bounded(40));
    if (random.bounded(2) == 0)
        record.followUpStatus = Dossiers::followUpStatuses()[random.bounded(3)];
    return record;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double maximum(const std::vector<double>& values)
{
    return *std::max_element(values.begin(), values.end());
}

double milliseconds(const QElapsedTimer& timer)
{
    return double(timer.nsecsElapsed()) / 1e6;
}

// CPU time of this thread: on a shared, loaded machine the wall clock also counts the time
// spent waiting for a core, which says nothing about our code.
double cpuMilliseconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) * 1e3 + double(now.tv_nsec) / 1e6;
}

void historyBenchmark(int calls)
{
    QTemporaryDir dir;
    QRandomGenerator random(7);
    RecordsStore store{DataFolder(dir.filePath(QStringLiteral("Brelian")))};
    (void)store.load();
    for (int i = calls - 1; i >= 0; --i)
        store.insertFront(generated(random, 30, i));

    QElapsedTimer timer;
    timer.start();
    if (Status failed = store.saveHistory()) {
        std::fprintf(stderr, "%s\n", qPrintable(failed->message()));
        return;
    }
    const double firstSave = milliseconds(timer);
    const QString history = store.folder().historyFile();
    const qint64 size = QFileInfo(history).size();

    std::vector<double> loads;
    for (int i = 0; i < 5; ++i) {
        RecordsStore reader{store.folder()};
        timer.restart();
        const Status loaded = reader.load();
        loads.push_back(milliseconds(timer));
        if (loaded || reader.records().size() != calls)
            std::fprintf(stderr, "load failed\n");
    }

    std::vector<double> saves;
    std::vector<double> saveCpu;
    std::vector<double> encodes;
    std::vector<double> encodeCpu;
    for (int i = 0; i < 21; ++i) {
        const QUuid id = store.records()[random.bounded(calls)].id;
        timer.restart();
        double cpu = cpuMilliseconds();
        const Status saved = store.updateNote(id, QStringLiteral("Note modifiée %1").arg(i));
        saveCpu.push_back(cpuMilliseconds() - cpu);
        saves.push_back(milliseconds(timer));
        if (saved)
            std::fprintf(stderr, "%s\n", qPrintable(saved->message()));
        timer.restart();
        cpu = cpuMilliseconds();
        (void)encodeHistory(store.records());
        encodeCpu.push_back(cpuMilliseconds() - cpu);
        encodes.push_back(milliseconds(timer));
    }

    // Another writer edits between our saves: each save reads, decodes and merges the file.
    RecordsStore tool{store.folder()};
    (void)tool.load();
    std::vector<double> merges;
    std::vector<double> mergeCpu;
    for (int i = 0; i < 11; ++i) {
        if (Status failed =
                tool.updateNote(tool.records()[random.bounded(calls)].id, QStringLiteral("outil")))
            std::fprintf(stderr, "%s\n", qPrintable(failed->message()));
        const QUuid id = store.records()[random.bounded(calls)].id;
        timer.restart();
        const double cpu = cpuMilliseconds();
        const Status saved = store.updateNote(id, QStringLiteral("Après l’outil %1").arg(i));
        mergeCpu.push_back(cpuMilliseconds() - cpu);
        merges.push_back(milliseconds(timer));
        if (saved)
            std::fprintf(stderr, "%s\n", qPrintable(saved->message()));
    }

    // The two parts of a save: the encoding, and the atomic replacement of the file.
    const QByteArray bytes = encodeHistory(store.records()).value();
    std::vector<double> writes;
    for (int i = 0; i < 11; ++i) {
        timer.restart();
        (void)PrivateFiles::write(history, bytes);
        writes.push_back(milliseconds(timer));
    }

    std::vector<double> copies;
    std::vector<double> copyCpu;
    const QString copy = dir.filePath(QStringLiteral("copy.json"));
    for (int i = 0; i < 21; ++i) {
        QFile::remove(copy);
        timer.restart();
        const double cpu = cpuMilliseconds();
        QFile::copy(history, copy);
        copyCpu.push_back(cpuMilliseconds() - cpu);
        copies.push_back(milliseconds(timer));
    }

    std::printf("history: %d calls x 30 lines, %.1f MB\n", calls, double(size) / 1e6);
    std::printf("  first save (history + %d transcript files): %.1f ms\n", calls, firstSave);
    std::printf("  load: median %.1f ms (max %.1f)\n", median(loads), maximum(loads));
    std::printf("  encode only: median %.1f ms wall, %.1f ms CPU\n", median(encodes),
                median(encodeCpu));
    std::printf("  saveHistory after one note edit: median %.1f ms wall (max %.1f), %.1f ms CPU\n",
                median(saves), maximum(saves), median(saveCpu));
    std::printf("  saveHistory after the tool rewrote the file (read + merge + write): median "
                "%.1f ms wall (max %.1f), %.1f ms CPU\n",
                median(merges), maximum(merges), median(mergeCpu));
    std::printf("  atomic private write of the bytes: median %.1f ms\n", median(writes));
    std::printf("  plain file copy floor: median %.1f ms wall (max %.1f), %.1f ms CPU\n",
                median(copies), maximum(copies), median(copyCpu));
    std::printf("  ratio save / floor: %.2f wall, %.2f CPU (goal <= 3, save < 50 ms)\n",
                median(saves) / median(copies), median(saveCpu) / median(copyCpu));
}

// A call of ten minutes in a history of `calls` records, as the provisional record keeps it:
// in the history (marked in progress) from the answer, then one write of the call's own file
// at most every kSaveDelay seconds, each time with the lines said since (about one every two
// seconds) and a new usage report. For comparison, the same changes saved by rewriting the
// whole history each time.
void duringCallBenchmark(int calls)
{
    QTemporaryDir dir;
    QRandomGenerator random(11);
    RecordsStore store{DataFolder(dir.filePath(QStringLiteral("Brelian")))};
    (void)store.load();
    for (int i = calls - 1; i >= 0; --i)
        store.insertFront(generated(random, 30, i));
    (void)store.saveHistory();

    const double period = ProvisionalRecord::kSaveDelay;
    CallRecord live = generated(random, 0, -1);
    live.progress = CallProgress::InProgress;
    QElapsedTimer timer;
    timer.start();
    store.insertFront(live);
    (void)store.saveHistory();
    (void)store.writeCallInProgress(live);
    const double opened = milliseconds(timer);

    const int linesPerSave = std::max(1, int(period / 2.0));
    const auto step = [&](int i, bool wholeHistory, std::vector<double>& wall,
                          std::vector<double>& cpu) {
        timer.restart();
        const double start = cpuMilliseconds();
        for (int l = 0; l < linesPerSave; ++l) {
            live.transcript.append(
                TranscriptLine::create(l % 2 ? Speaker::caller() : Speaker::assistant(),
                                       phrases[random.bounded(int(phrases.size()))]));
        }
        live.usage =
            ConversationUsage{100 * i, 50 * i, 0.001 * i, 0, QStringLiteral("gpt-realtime")};
        if (wholeHistory)
            store.modify(live.id, [&](CallRecord& record) { record = live; });
        const Status failed = wholeHistory ? store.saveHistory() : store.writeCallInProgress(live);
        if (failed)
            std::fprintf(stderr, "%s\n", qPrintable(failed->message()));
        cpu.push_back(cpuMilliseconds() - start);
        wall.push_back(milliseconds(timer));
    };
    const int saves = int(600 / period);
    std::vector<double> wall;
    std::vector<double> cpu;
    for (int i = 0; i < saves; ++i)
        step(i, false, wall, cpu);
    std::vector<double> wholeWall;
    std::vector<double> wholeCpu;
    for (int i = 0; i < 21; ++i)
        step(saves + i, true, wholeWall, wholeCpu);

    const double share = 100.0 * median(cpu) / (period * 1000.0);
    std::printf("during a call (history of %d calls; 10 minutes, one write every %.0f s: %d):\n",
                calls, period, saves);
    std::printf("  at the answer (history + the call's file): %.1f ms\n", opened);
    std::printf("  one write of the call's file: median %.2f ms wall (max %.2f), %.2f ms CPU; "
                "%.3f %% of one core during the call\n",
                median(wall), maximum(wall), median(cpu), share);
    std::printf("  the whole history instead: median %.1f ms wall, %.1f ms CPU; %.0f MB "
                "written per 10 minutes\n",
                median(wholeWall), median(wholeCpu),
                double(QFileInfo(store.folder().historyFile()).size()) * saves / 1e6);
}

void searchBenchmark(int count)
{
    QRandomGenerator random(11);
    QList<CallRecord> records;
    records.reserve(count);
    for (int i = 0; i < count; ++i)
        records.append(generated(random, 12, i));

    // What the Conversations page holds: one index, built at the first query.
    QElapsedTimer timer;
    timer.start();
    DossierSearchIndex index;
    (void)index.visible(DossiersDraft(), records);
    const double build = milliseconds(timer);

    struct Query {
        const char* label;
        DossiersDraft draft;
    };
    auto draft = [](const QString& search, const QString& folder, const QString& status) {
        DossiersDraft d;
        d.search = search;
        d.folder = folder;
        d.status = status;
        return d;
    };
    const QList<Query> queries = {
        {"rare word",
         draft(QStringLiteral("inondation"), Dossiers::allFolders(), Dossiers::allStatuses())},
        {"common word, all shown",
         draft(QStringLiteral("fuite"), Dossiers::allFolders(), Dossiers::allStatuses())},
        {"upper case, no accent",
         draft(QStringLiteral("CHAUDIERE"), Dossiers::allFolders(), Dossiers::allStatuses())},
        {"number part",
         draft(QStringLiteral("34 56"), Dossiers::allFolders(), Dossiers::allStatuses())},
        {"unfiled + status + word",
         draft(QStringLiteral("lilas"), Dossiers::unfiled(), QStringLiteral("En cours"))},
        {"no text, one dossier",
         draft(QString(), QStringLiteral("SCI Lilas · logement 7"), Dossiers::allStatuses())},
    };
    std::printf("dossier search: %d records x 12 lines (%.1f MB of folded text), index built in "
                "%.0f ms\n",
                count, double(index.textBytes()) / 1e6, build);
    for (const Query& query : queries) {
        std::vector<double> times;
        qsizetype shown = 0;
        for (int i = 0; i < 15; ++i) {
            timer.restart();
            shown = index.visible(query.draft, records).size();
            times.push_back(milliseconds(timer));
        }
        std::printf("  %-26s %6lld shown: median %.2f ms (max %.2f)\n", query.label,
                    static_cast<long long>(shown), median(times), maximum(times));
    }
    // A note edited: the list changes and the next query folds that one record again.
    std::vector<double> follows;
    for (int i = 0; i < 7; ++i) {
        records[random.bounded(count)].note = QStringLiteral("Note modifiée %1").arg(i);
        timer.restart();
        (void)index.visible(queries[1].draft, records);
        follows.push_back(milliseconds(timer));
    }
    std::printf("  first query after one note edit (index follows): median %.1f ms (max %.1f)\n",
                median(follows), maximum(follows));
    // `vemira search`: one query in a fresh process, so the index is built for it.
    timer.restart();
    const qsizetype direct = queries[2].draft.visible(records).size();
    std::printf("  one-shot query building its index (vemira search): %.0f ms, %lld shown\n",
                milliseconds(timer), static_cast<long long>(direct));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int calls = argc > 1 ? std::atoi(argv[1]) : 5000;
    const int searchRecords = argc > 2 ? std::atoi(argv[2]) : 50000;
    historyBenchmark(calls);
    duringCallBenchmark(calls);
    if (searchRecords > 0)
        searchBenchmark(searchRecords);
    return 0;
}
