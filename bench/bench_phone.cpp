// Cost of the call search: incoming() and hasActiveCall() over fake trees of several sizes
// with a per-request delay (the 1.0 s budget must hold whatever the tree), then one idle
// tick's scan of a real softphone window over AT-SPI on a private Xvfb desktop, and the real
// softphones Twinkle and GNOME Calls: idle scan, answer delay, a frozen softphone's scan.
#include "FakeAccessibility.h"
#include "phone/PhoneAutomation.h"

#ifdef VEMIRA_RINGING_PHONE
#include "platform/linux/phone/AtspiAccessibility.h"
#endif
#ifdef VEMIRA_REAL_SOFTPHONES
#include "demo/DemoSoftphone.h"
#include "demo/PrivateNetwork.h"
#include "support/PrivateDesktop.h"

#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>
#include <csignal>
#include <sys/resource.h>
#endif
#ifdef VEMIRA_IDLE_APP
#include "demo/MarksFile.h"
#include "records/APIKeyStore.h"
#include "records/DataFolder.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonObject>
#include <unistd.h>
#endif

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTextStream>
#include <QThread>
#include <algorithm>
#include <chrono>
#include <thread>

using namespace vemira;
using namespace vemira::testing;

namespace {

QTextStream out(stdout);

// A call-less interface of `size` elements: windows of groups holding labels and buttons,
// with a hang-up button and a call offer placed where the walk reaches them last.
FakeElementPtr makeTree(int size, const std::shared_ptr<FakeReadLog>& log)
{
    FakeElementPtr root =
        FakeElement::make(axrole::application(), QStringLiteral("Téléphone"), log);
    FakeElementPtr offer = root->add(axrole::window())->add(axrole::group());
    offer->add(axrole::staticText(), QStringLiteral("Appel entrant"));
    offer->add(axrole::staticText(), QStringLiteral("+33 6 12 34 56 78"));
    offer->add(axrole::button(), QStringLiteral("Répondre"));
    offer->add(axrole::button(), QStringLiteral("Raccrocher"));
    int made = 6;
    while (made < size) {
        FakeElementPtr group = root->add(axrole::window())->add(axrole::group());
        made += 2;
        for (int i = 0; i < 8 && made < size; ++i, ++made) {
            if (i % 2)
                group->add(axrole::button(), QStringLiteral("Contact %1").arg(made));
            else
                group->add(axrole::staticText(), QStringLiteral("06 00 00 %1").arg(made));
        }
    }
    return root;
}

void fakeTrees()
{
    out << "fake trees (request delay is slept for real; the offer sits where the walk ends)\n";
    out << QStringLiteral("%1 %2 %3 %4 %5 %6\n")
               .arg(QStringLiteral("elements"), 8)
               .arg(QStringLiteral("delay"), 8)
               .arg(QStringLiteral("incoming ms"), 12)
               .arg(QStringLiteral("found"), 6)
               .arg(QStringLiteral("active ms"), 10)
               .arg(QStringLiteral("found"), 6);
    for (const int size : {50, 600, 5000}) {
        for (const int delayMicros : {0, 100, 1000, 3000}) {
            auto log = std::make_shared<FakeReadLog>();
            if (delayMicros > 0)
                log->onRead = [delayMicros] {
                    std::this_thread::sleep_for(std::chrono::microseconds(delayMicros));
                };
            FakeAccessibility platform;
            platform.running = {{QStringLiteral("phone"), makeTree(size, log)}};
            PhoneAutomation phone(platform, SystemClock::instance(), {QStringLiteral("phone")});
            QElapsedTimer t;
            t.start();
            const bool offered = phone.incoming().has_value();
            const double incomingMs = t.nsecsElapsed() / 1e6;
            t.restart();
            const bool active = phone.hasActiveCall();
            const double activeMs = t.nsecsElapsed() / 1e6;
            out << QStringLiteral("%1 %2 %3 %4 %5 %6\n")
                       .arg(size, 8)
                       .arg(QStringLiteral("%1 us").arg(delayMicros), 8)
                       .arg(incomingMs, 12, 'f', 1)
                       .arg(offered ? QStringLiteral("yes") : QStringLiteral("no"), 6)
                       .arg(activeMs, 10, 'f', 1)
                       .arg(active ? QStringLiteral("yes") : QStringLiteral("no"), 6);
            out.flush();
        }
    }
}

#ifdef VEMIRA_RINGING_PHONE
void realWindow()
{
    out << "\nreal AT-SPI window (Qt softphone under Xvfb, showing no call)\n";
    QProcess session;
    session.start(QStringLiteral(VEMIRA_DESKTOP_SESSION), {QStringLiteral("start")});
    if (!session.waitForFinished(30000) || session.exitCode() != 0) {
        out << "  no desktop session: " << session.readAllStandardError() << "\n";
        return;
    }
    QString dir;
    for (const QString& line :
         QString::fromUtf8(session.readAllStandardOutput()).split(QLatin1Char('\n'))) {
        const QString assignment = line.section(QLatin1Char(' '), 1);
        const QString name = assignment.section(QLatin1Char('='), 0, 0);
        if (name.isEmpty())
            continue;
        qputenv(name.toUtf8().constData(), assignment.section(QLatin1Char('='), 1).toUtf8());
        if (name == QStringLiteral("VEMIRA_DESKTOP_DIR"))
            dir = assignment.section(QLatin1Char('='), 1);
    }
    QProcess window;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    window.setProcessEnvironment(env);
    // The demonstration's test softphone, idle until told to ring.
    window.start(QStringLiteral(VEMIRA_RINGING_PHONE), {QStringLiteral("--ring-on-stdin")});
    window.waitForStarted();

    AtspiAccessibility accessibility;
    const QStringList names = linuxPhoneApplications({});
    PhoneAutomation phone(accessibility, SystemClock::instance(), names);
    // Wait for the window to register with the desktop.
    for (int i = 0; i < 200 && accessibility.applicationRoots(names).empty(); ++i)
        QThread::msleep(50);
    const bool seen = !accessibility.applicationRoots(names).empty();

    std::vector<double> incomingMs, activeMs;
    for (int i = 0; i < 50 && seen; ++i) {
        QElapsedTimer t;
        t.start();
        phone.incoming();
        incomingMs.push_back(t.nsecsElapsed() / 1e6);
        t.restart();
        phone.hasActiveCall();
        activeMs.push_back(t.nsecsElapsed() / 1e6);
    }
    auto report = [](const char* what, std::vector<double> v) {
        if (v.empty()) {
            out << "  " << what << ": window not seen\n";
            return;
        }
        std::sort(v.begin(), v.end());
        out << "  " << what
            << QStringLiteral(": median %1 ms, max %2 ms over %3 scans\n")
                   .arg(v[v.size() / 2], 0, 'f', 2)
                   .arg(v.back(), 0, 'f', 2)
                   .arg(v.size());
    };
    report("incoming()", incomingMs);
    report("hasActiveCall()", activeMs);
    std::vector<double> tick(incomingMs.size());
    std::transform(incomingMs.begin(), incomingMs.end(), activeMs.begin(), tick.begin(),
                   [](double a, double b) { return a + b; });
    report("idle tick (both)", tick);

    window.kill();
    window.waitForFinished(5000);
    QProcess::execute(QStringLiteral(VEMIRA_DESKTOP_SESSION), {QStringLiteral("stop"), dir});
}
#endif

#ifdef VEMIRA_REAL_SOFTPHONES
constexpr int kIdleTicks = 60;

double msSince(const QElapsedTimer& t)
{
    return t.nsecsElapsed() / 1e6;
}

// User and system time of this process, in seconds.
double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return double(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Lets queued events (the accessibility bus's among them) be handled, as between two ticks.
void runEventLoop(qint64 ms)
{
    QEventLoop loop;
    QTimer::singleShot(std::max<qint64>(1, ms), &loop, &QEventLoop::quit);
    loop.exec();
}

// For each real softphone: one idle tick's scan (incoming() + hasActiveCall()), the answer
// delay from the ring first seen to the press done and to the caller's "established", and
// the scan of a softphone that stopped answering (SIGSTOP): bounded by the 1.0 s budget
// plus one request.
void realSoftphones()
{
    out << "\nreal softphones (Xvfb, AT-SPI, called by baresip over loopback)\n";
    QTemporaryDir dir;
    e2e::PrivateDesktop desktop(QStringLiteral(VEMIRA_SCRIPTS), dir.filePath(QStringLiteral("d")));
    QString error;
    if (!desktop.start(&error)) {
        out << "  no desktop: " << error << "\n";
        return;
    }
    const QProcessEnvironment env = desktop.environment();
    for (const QString& name : env.keys())
        qputenv(name.toUtf8().constData(), env.value(name).toUtf8());
    const QString voice = dir.filePath(QStringLiteral("voice.wav"));
    QProcess::execute(QStringLiteral("sox"),
                      {QStringLiteral("-n"), QStringLiteral("-r"), QStringLiteral("8000"), voice,
                       QStringLiteral("synth"), QStringLiteral("30"), QStringLiteral("sine"),
                       QStringLiteral("440")});
    AtspiAccessibility accessibility;
    for (const QString& id : {QStringLiteral("twinkle"), QStringLiteral("gnome-calls")}) {
        DemoSoftphone phone(id, dir.filePath(id), env, QStringLiteral("fr"),
                            QStringLiteral(VEMIRA_SCRIPTS "/softphone.sh"));
        Status failed = phone.start();
        if (!failed)
            failed = phone.startCaller(voice, {});
        if (failed) {
            out << "  " << id << ": " << failed->message() << "\n";
            continue;
        }
        PhoneAutomation automation(accessibility, SystemClock::instance(), softphones::known());
        for (int i = 0; i < 200 && !automation.anyApplicationVisible(); ++i)
            runEventLoop(100);
        // The first look walks the whole tree once; then the standby loop's ticks, one a
        // second, with the event loop running between them as in the application, and the
        // process's own CPU time over the whole minute.
        QElapsedTimer first;
        first.start();
        automation.incoming();
        automation.hasActiveCall();
        const double firstLook = msSince(first);
        runEventLoop(1000);
        std::vector<double> idle;
        const double cpuBefore = cpuSeconds();
        QElapsedTimer minute;
        minute.start();
        for (int i = 0; i < kIdleTicks; ++i) {
            QElapsedTimer t;
            t.start();
            automation.incoming();
            automation.hasActiveCall();
            idle.push_back(msSince(t));
            runEventLoop(1000 - std::min<qint64>(999, qint64(idle.back())));
        }
        const double cpuPercent = 100.0 * (cpuSeconds() - cpuBefore) / (minute.elapsed() / 1000.0);
        std::sort(idle.begin(), idle.end());
        QElapsedTimer sinceDial;
        sinceDial.start();
        (void)phone.dial();
        std::optional<IncomingCall> call;
        QElapsedTimer sinceRing;
        for (int i = 0; i < 300 && !call; ++i) {
            call = automation.incoming();
            if (!call)
                runEventLoop(20);
        }
        const double seen = call ? msSince(sinceDial) : -1;
        // The receptionist never answers before three seconds of ringing, and Twinkle holds a
        // press made in its first second of ringing until its call audio is open (about
        // 100 ms, then a second before the caller is connected): the press is made at the
        // tick that would take the call, and timed from that tick's start.
        runEventLoop(3000);
        sinceRing.start();
        if (call)
            call = automation.incoming();
        double pressed = -1, established = -1;
        if (call && !automation.answer(*call)) {
            pressed = msSince(sinceRing);
            for (int i = 0; i < 500 && established < 0; ++i) {
                if (phone.callerLogShows("Call established"))
                    established = msSince(sinceRing);
                else
                    runEventLoop(10);
            }
        }
        runEventLoop(1500);
        double hungUp = -1;
        QElapsedTimer t;
        t.start();
        if (!automation.hangup())
            hungUp = msSince(t);
        // A softphone that stopped answering: every request runs into its timeout.
        ::kill(pid_t(phone.pid()), SIGSTOP);
        t.restart();
        automation.incoming();
        const double frozen = msSince(t);
        ::kill(pid_t(phone.pid()), SIGCONT);
        out << QStringLiteral(
                   "  %1: first look %11 ms; idle tick on the main thread median %2 "
                   "ms, max %3 ms (%4 ticks a second apart); own CPU over them %9 % "
                   "of a core; ring "
                   "seen %10 ms after the dial; answer delay (answering tick, 3 s into the "
                   "ring → pressed) %5 ms, → caller connected %6 ms; hang-up %7 ms; frozen "
                   "softphone: incoming() %8 ms\n")
                   .arg(phone.id())
                   .arg(idle[idle.size() / 2], 0, 'f', 1)
                   .arg(idle.back(), 0, 'f', 1)
                   .arg(idle.size())
                   .arg(pressed, 0, 'f', 1)
                   .arg(established, 0, 'f', 1)
                   .arg(hungUp, 0, 'f', 1)
                   .arg(frozen, 0, 'f', 1)
                   .arg(cpuPercent, 0, 'f', 2)
                   .arg(seen, 0, 'f', 0)
                   .arg(firstLook, 0, 'f', 1);
        out.flush();
    }
}
#endif

#ifdef VEMIRA_IDLE_APP
// Presses the first element of `application` that reads `label` (or only finds it when
// `press` is false), as the owner would.
bool reach(Accessibility& accessibility, const QString& application, const QString& label,
           bool press)
{
    for (const AccessibilityElementPtr& root : accessibility.applicationRoots({application})) {
        std::vector<AccessibilityElementPtr> stack{root};
        while (!stack.empty()) {
            AccessibilityElementPtr element = stack.back();
            stack.pop_back();
            for (const LabelAttribute attribute : kLabelAttributes) {
                if (element->label(attribute) == label && (!press || element->press()))
                    return true;
            }
            for (AccessibilityElementPtr& child : element->children())
                stack.push_back(std::move(child));
        }
    }
    return false;
}

bool waitUntil(const std::function<bool()>& done, int seconds)
{
    QElapsedTimer t;
    t.start();
    while (!done()) {
        if (t.elapsed() > seconds * 1000)
            return false;
        runEventLoop(200);
    }
    return true;
}

// The window manager's close request (WM_DELETE_WINDOW), which the private desktop has no
// window manager to send.
void closeWindow(const QString& windowId)
{
    static const char* kScript = R"(
import ctypes, sys
x = ctypes.CDLL("libX11.so.6")
x.XOpenDisplay.restype = ctypes.c_void_p
x.XInternAtom.restype = ctypes.c_ulong
x.XInternAtom.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int]
x.XSendEvent.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_int, ctypes.c_long,
                         ctypes.c_void_p]
x.XFlush.argtypes = [ctypes.c_void_p]
class Message(ctypes.Structure):
    _fields_ = [("type", ctypes.c_int), ("serial", ctypes.c_ulong), ("send_event", ctypes.c_int),
                ("display", ctypes.c_void_p), ("window", ctypes.c_ulong),
                ("message_type", ctypes.c_ulong), ("format", ctypes.c_int),
                ("data", ctypes.c_long * 5), ("pad", ctypes.c_long * 12)]
d = x.XOpenDisplay(None)
m = Message(type=33, window=int(sys.argv[1]), message_type=x.XInternAtom(d, b"WM_PROTOCOLS", 0),
            format=32)
m.data[0] = x.XInternAtom(d, b"WM_DELETE_WINDOW", 0)
x.XSendEvent(d, m.window, 0, 0, ctypes.byref(m))
x.XFlush(d)
)";
    QProcess::execute(QStringLiteral("python3"),
                      {QStringLiteral("-c"), QString::fromLatin1(kScript), windowId});
}

// User and system time of process `pid` so far, in seconds (/proc/PID/stat, fields 14 and 15).
double processCpuSeconds(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray line = stat.readAll();
    // The command name may hold spaces: fields are counted after its closing parenthesis.
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13)
        return -1;
    return double(fields[11].toLongLong() + fields[12].toLongLong()) / double(sysconf(_SC_CLK_TCK));
}

// A line of /proc/PID/status in megabytes (VmRSS, VmHWM).
double memoryMegabytes(qint64 pid, const QByteArray& name)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(name + ':'))
            return line.mid(name.size() + 1).trimmed().split(' ').value(0).toDouble() / 1024.0;
    }
    return -1;
}

// The desktop application as the owner leaves it: the sound tested, answering switched on
// (the AI check made against the local stand-in), the window closed to the background, Twinkle
// running beside it. Its CPU time over a minute from /proc, and its resident memory.
void idleApplication()
{
    out << "\nidle desktop application (vemira-app armed, window hidden, Twinkle running; "
           "Xvfb, AT-SPI)\n";
    QTemporaryDir dir;
    e2e::PrivateDesktop desktop(QStringLiteral(VEMIRA_SCRIPTS), dir.filePath(QStringLiteral("d")));
    QString error;
    if (!desktop.start(&error)) {
        out << "  no desktop: " << error << "\n";
        return;
    }
    QProcessEnvironment env = desktop.environment();
    for (const QString& name : env.keys())
        qputenv(name.toUtf8().constData(), env.value(name).toUtf8());
    const QString marks = dir.filePath(QStringLiteral("standin.json"));
    QProcess standin;
    standin.setProcessEnvironment(env);
    standin.start(QStringLiteral(VEMIRA_STANDIN), {QStringLiteral("--marks"), marks});
    if (!standin.waitForReadyRead(10000)) {
        out << "  the stand-in did not start\n";
        return;
    }
    const QString url = QString::fromUtf8(standin.readLine()).trimmed().section(u' ', 1);
    DemoSoftphone phone(QStringLiteral("twinkle"), dir.filePath(QStringLiteral("twinkle")), env,
                        QStringLiteral("fr"), QStringLiteral(VEMIRA_SCRIPTS "/softphone.sh"));
    if (const Status failed = phone.start()) {
        out << "  twinkle: " << failed->message() << "\n";
        return;
    }
    const QString data = dir.filePath(QStringLiteral("Brelian"));
    (void)LocalKeyStore(DataFolder(data).credentialsFolder()).save(QStringLiteral("sk-bench"));
    env.insert(QStringLiteral("VEMIRA_DATA_DIR"), data);
    env.insert(QStringLiteral("VEMIRA_REALTIME_URL"), url);
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), dir.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    env.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
    QProcess app;
    app.setProcessEnvironment(env);
    app.setStandardErrorFile(dir.filePath(QStringLiteral("app.log")));
    app.start(QStringLiteral(VEMIRA_APP),
              {QStringLiteral("--settings"), dir.filePath(QStringLiteral("app.ini"))});
    AtspiAccessibility accessibility;
    const QString vemira = QStringLiteral("Vemira");
    const auto sessions = [&] {
        return !e2e::MarksFile::read(marks)[QStringLiteral("sessions")].toArray().isEmpty();
    };
    const auto visibleWindow = [] {
        QProcess search;
        search.start(QStringLiteral("xdotool"),
                     {QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                      QStringLiteral("--name"), QStringLiteral("^Vemira$")});
        search.waitForFinished(10000);
        return QString::fromUtf8(search.readAllStandardOutput()).section(u'\n', 0, 0);
    };
    QString window;
    // Each step as the owner makes it; closing while armed asks whether to go on in the
    // background.
    const std::pair<const char*, std::function<bool()>> steps[] = {
        {"sound tested",
         [&] {
             return accessibility.isTrusted() &&
                    reach(accessibility, vemira, QStringLiteral("Configurer et tester le son"),
                          true);
         }},
        {"answering switched on",
         [&] {
             return sessions() ||
                    (reach(accessibility, vemira, QStringLiteral("Répondre aux appels"), true) &&
                     waitUntil(sessions, 3));
         }},
        {"listening",
         [&] { return reach(accessibility, vemira, QStringLiteral("À l’écoute"), false); }},
        {"window closed",
         [&] {
             window = visibleWindow();
             if (!window.isEmpty())
                 closeWindow(window);
             return !window.isEmpty() && reach(accessibility, vemira, QStringLiteral("Oui"), true);
         }},
        {"window hidden", [&] { return visibleWindow().isEmpty(); }},
    };
    const char* failed = nullptr;
    for (const auto& [step, done] : steps) {
        if (!waitUntil(done, 60)) {
            failed = step;
            break;
        }
    }
    if (failed) {
        out << "  vemira-app: no \"" << failed << "\" within a minute\n";
    } else {
        // Settled first; then a minute as the owner leaves it.
        runEventLoop(5000);
        const qint64 pid = app.processId();
        const double before = processCpuSeconds(pid);
        QElapsedTimer minute;
        minute.start();
        runEventLoop(60000);
        const double cpu = 100.0 * (processCpuSeconds(pid) - before) / (minute.elapsed() / 1000.0);
        out << QStringLiteral("  vemira-app: CPU over %1 idle seconds %2 % of a core; resident "
                              "memory %3 MB (peak %4 MB)\n")
                   .arg(minute.elapsed() / 1000)
                   .arg(cpu, 0, 'f', 2)
                   .arg(memoryMegabytes(pid, "VmRSS"), 0, 'f', 1)
                   .arg(memoryMegabytes(pid, "VmHWM"), 0, 'f', 1);
    }
    app.terminate();
    app.waitForFinished(15000);
    standin.kill();
    standin.waitForFinished(3000);
}
#endif

#if defined(VEMIRA_IDLE_APP) || defined(VEMIRA_REAL_SOFTPHONES)
// libatspi binds to one accessibility bus per process: the real softphones get a process
// (and a private network namespace, their SIP ports being fixed) of their own.
int isolated(int argc, char** argv, const char* what, void (*measure)())
{
    QString error;
    if (!enterPrivateNetwork(&error)) {
        out << "\n" << what << " skipped: " << error << "\n";
        return 0;
    }
    QCoreApplication app(argc, argv);
    measure();
    return 0;
}
#endif

} // namespace

int main(int argc, char** argv)
{
#ifdef VEMIRA_IDLE_APP
    if (argc > 1 && qstrcmp(argv[1], "--app") == 0)
        return isolated(argc, argv, "idle desktop application", idleApplication);
#endif
#ifdef VEMIRA_REAL_SOFTPHONES
    if (argc > 1 && qstrcmp(argv[1], "--softphones") == 0)
        return isolated(argc, argv, "real softphones", realSoftphones);
#endif
    QCoreApplication app(argc, argv);
    fakeTrees();
#ifdef VEMIRA_RINGING_PHONE
    realWindow();
#endif
#ifdef VEMIRA_REAL_SOFTPHONES
    QProcess softphones;
    softphones.setProcessChannelMode(QProcess::ForwardedChannels);
    softphones.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--softphones")});
    softphones.waitForFinished(300000);
#endif
    return 0;
}
