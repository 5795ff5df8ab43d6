// Runs the demonstration a few times (argument: how many, default 3) and prints the added
// latency of the call's audio each way and Vemira's CPU share during the call, against the
// goals: under 100 ms each way, under 5 % of one core.
#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTextStream>
#include <algorithm>

namespace {

QTextStream out(stdout);

struct Series {
    QList<double> values;
    void add(const QJsonArray& array)
    {
        for (const QJsonValue& v : array)
            values.append(v.toDouble());
    }
    double mean() const
    {
        double sum = 0;
        for (double v : values)
            sum += v;
        return values.isEmpty() ? 0 : sum / double(values.size());
    }
    double max() const
    {
        return values.isEmpty() ? 0 : *std::max_element(values.begin(), values.end());
    }
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? std::max(1, QString::fromLocal8Bit(argv[1]).toInt()) : 3;
    Series up;
    Series down;
    Series cpu;
    for (int run = 1; run <= runs; ++run) {
        QTemporaryDir dir;
        const QString report = dir.filePath(QStringLiteral("report.json"));
        QProcess demo;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("VEMIRA_SOFTPHONE"), QStringLiteral(VEMIRA_E2E_SOFTPHONE));
        env.insert(QStringLiteral("VEMIRA_STANDIN"), QStringLiteral(VEMIRA_E2E_STANDIN));
        env.insert(QStringLiteral("VEMIRA_PULSE_SCRIPT"), QStringLiteral(VEMIRA_E2E_PULSE_SCRIPT));
        demo.setProcessEnvironment(env);
        demo.setStandardOutputFile(QProcess::nullDevice());
        demo.start(QStringLiteral(VEMIRA_E2E_CLI),
                   {QStringLiteral("demo"), QStringLiteral("--folder"),
                    dir.filePath(QStringLiteral("demo")), QStringLiteral("--report"), report});
        if (!demo.waitForFinished(180'000) || demo.exitCode() != 0) {
            out << "run " << run << ": the demonstration failed" << Qt::endl;
            return 1;
        }
        QFile file(report);
        file.open(QIODevice::ReadOnly);
        const QJsonObject figures = QJsonDocument::fromJson(file.readAll()).object();
        Series runUp;
        Series runDown;
        runUp.add(figures[QStringLiteral("callerToAIms")].toArray());
        runDown.add(figures[QStringLiteral("aiToCallerMs")].toArray());
        const double share = figures[QStringLiteral("cpuPercentOfOneCore")].toDouble();
        out << QStringLiteral(
                   "run %1: caller→AI %2 ms (max %3), AI→caller %4 ms (max %5), CPU %6 % of a core")
                   .arg(run)
                   .arg(runUp.mean(), 0, 'f', 1)
                   .arg(runUp.max(), 0, 'f', 1)
                   .arg(runDown.mean(), 0, 'f', 1)
                   .arg(runDown.max(), 0, 'f', 1)
                   .arg(share, 0, 'f', 2)
            << Qt::endl;
        up.values += runUp.values;
        down.values += runDown.values;
        cpu.values.append(share);
    }
    auto verdict = [](bool ok) { return ok ? "within goal" : "OVER GOAL"; };
    out << QStringLiteral("caller→AI added latency: mean %1 ms, max %2 ms (goal < 100 ms: %3)")
               .arg(up.mean(), 0, 'f', 1)
               .arg(up.max(), 0, 'f', 1)
               .arg(QLatin1String(verdict(up.max() < 100)))
        << Qt::endl;
    out << QStringLiteral("AI→caller added latency: mean %1 ms, max %2 ms (goal < 100 ms: %3)")
               .arg(down.mean(), 0, 'f', 1)
               .arg(down.max(), 0, 'f', 1)
               .arg(QLatin1String(verdict(down.max() < 100)))
        << Qt::endl;
    out << QStringLiteral(
               "Vemira CPU during the call: mean %1 %, max %2 % of one core (goal < 5 %: %3)")
               .arg(cpu.mean(), 0, 'f', 2)
               .arg(cpu.max(), 0, 'f', 2)
               .arg(QLatin1String(verdict(cpu.max() < 5)))
        << Qt::endl;
    return 0;
}
