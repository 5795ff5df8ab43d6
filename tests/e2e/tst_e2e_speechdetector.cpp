// The plain voice-activity detector both ends of the scenario rely on: the softphone to know
// when the assistant has finished its turn, the stand-in to know when the caller has. A shift
// of its indices would skew every latency figure; a missed or split utterance would derail
// the scripted conversation.
#include "demo/SpeechDetector.h"

#include <QTest>
#include <vector>

using vemira::e2e::firstLoudSample;
using vemira::e2e::SpeechDetector;
using Kind = SpeechDetector::Event::Kind;

namespace {

// `silence` quiet samples then `loud` samples alternating in sign (a crude voice).
void appendSegment(std::vector<int16_t>& pcm, int silence, int loud, int level = 8000)
{
    pcm.insert(pcm.end(), size_t(silence), int16_t(400));
    for (int i = 0; i < loud; ++i)
        pcm.push_back(int16_t(i % 2 ? -level : level));
}

QByteArray bytes(const std::vector<int16_t>& pcm)
{
    return QByteArray(reinterpret_cast<const char*>(pcm.data()), qsizetype(pcm.size() * 2));
}

} // namespace

class TestSpeechDetector : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void utterancesAreFoundAtTheirSamples();
    void pausesShorterThanTheSilenceDoNotSplitAnUtterance();
    void chunkingDoesNotMoveTheEvents();
};

void TestSpeechDetector::utterancesAreFoundAtTheirSamples()
{
    std::vector<int16_t> pcm;
    appendSegment(pcm, 1000, 500); // speech at 1000..1499
    appendSegment(pcm, 2000, 300); // speech at 3500..3799
    appendSegment(pcm, 2000, 0);
    SpeechDetector detector(1200);
    const auto events = detector.push(bytes(pcm));
    QCOMPARE(events.size(), 4);
    QCOMPARE(events[0].kind, Kind::Started);
    QCOMPARE(events[0].sample, 1000);
    QCOMPARE(events[1].kind, Kind::Stopped);
    QCOMPARE(events[1].sample, 1500);
    QCOMPARE(events[2].kind, Kind::Started);
    QCOMPARE(events[2].sample, 3500);
    QCOMPARE(events[3].sample, 3800);
    QVERIFY(!detector.inSpeech());
    QCOMPARE(firstLoudSample(bytes(pcm)), 1000);
    // Loud from 5 % of full scale: 1637 is quiet, -1638 is speech.
    QCOMPARE(firstLoudSample(bytes({0, 1637, -1638})), 2);
    QCOMPARE(firstLoudSample(bytes(std::vector<int16_t>(100, 0))), -1);
}

void TestSpeechDetector::pausesShorterThanTheSilenceDoNotSplitAnUtterance()
{
    std::vector<int16_t> pcm;
    appendSegment(pcm, 100, 400);
    appendSegment(pcm, 1199, 400); // one sample short of the silence that ends a turn
    appendSegment(pcm, 1200, 0);   // exactly the silence that ends it
    SpeechDetector detector(1200);
    const auto events = detector.push(bytes(pcm));
    QCOMPARE(events.size(), 2);
    QCOMPARE(events[0].sample, 100);
    QCOMPARE(events[1].kind, Kind::Stopped);
    QCOMPARE(events[1].sample, 100 + 400 + 1199 + 400);
}

void TestSpeechDetector::chunkingDoesNotMoveTheEvents()
{
    std::vector<int16_t> pcm;
    appendSegment(pcm, 777, 1234);
    appendSegment(pcm, 5000, 10);
    appendSegment(pcm, 5000, 0);
    SpeechDetector whole(2400);
    const auto expected = whole.push(bytes(pcm));
    QCOMPARE(expected.size(), 4);
    for (int chunk : {1, 240, 479, 4800}) {
        SpeechDetector pieces(2400);
        QList<SpeechDetector::Event> events;
        for (size_t at = 0; at < pcm.size(); at += size_t(chunk)) {
            const size_t n = std::min(size_t(chunk), pcm.size() - at);
            events += pieces.push(pcm.data() + at, qsizetype(n));
        }
        QCOMPARE(events.size(), expected.size());
        for (qsizetype i = 0; i < events.size(); ++i) {
            QCOMPARE(events[i].kind, expected[i].kind);
            QCOMPARE(events[i].sample, expected[i].sample);
        }
        QCOMPARE(pieces.samplesSeen(), qint64(pcm.size()));
    }
}

QTEST_GUILESS_MAIN(TestSpeechDetector)
#include "tst_e2e_speechdetector.moc"
