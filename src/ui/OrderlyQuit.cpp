#include "ui/OrderlyQuit.h"

#include "app/AppModel.h"

#include <QEventLoop>
#include <QGuiApplication>
#include <QSessionManager>
#include <QSocketNotifier>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace vemira::ui {

namespace {

// [0] written by the handler, [1] read by the event loop.
int g_signalPair[2] = {-1, -1};
constexpr int kSignals[] = {SIGTERM, SIGHUP, SIGINT};

extern "C" void forwardSignal(int number)
{
    const auto byte = static_cast<char>(number);
    // Nothing to do on failure: a full pipe already holds a request.
    [[maybe_unused]] const ssize_t written = ::write(g_signalPair[0], &byte, 1);
}

QString signalName(int number)
{
    switch (number) {
    case SIGTERM:
        return QStringLiteral("SIGTERM");
    case SIGHUP:
        return QStringLiteral("SIGHUP");
    default:
        return QStringLiteral("SIGINT");
    }
}

} // namespace

OrderlyQuit::OrderlyQuit(AppModel& model, QObject* parent) : QObject(parent), m_model(model)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, g_signalPair) == 0) {
        m_notifier = new QSocketNotifier(g_signalPair[1], QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, &OrderlyQuit::readSignal);
        struct sigaction action = {};
        action.sa_handler = forwardSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        for (int number : kSignals)
            ::sigaction(number, &action, nullptr);
    }
    m_poll.setInterval(100);
    connect(&m_poll, &QTimer::timeout, this, &OrderlyQuit::poll);

    if (auto* gui = qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
#ifndef QT_NO_SESSIONMANAGER
        connect(gui, &QGuiApplication::commitDataRequest, this,
                [this](QSessionManager&) { endNow(QStringLiteral("fin de la session")); });
#endif
        // Quitting from the menu or the status icon ends the call the same way.
        connect(gui, &QCoreApplication::aboutToQuit, this,
                [this] { endNow(QStringLiteral("fermeture de l’application")); });
    }
}

OrderlyQuit::~OrderlyQuit()
{
    if (!m_notifier)
        return;
    for (int number : kSignals)
        std::signal(number, SIG_DFL);
    ::close(g_signalPair[0]);
    ::close(g_signalPair[1]);
    g_signalPair[0] = g_signalPair[1] = -1;
}

void OrderlyQuit::readSignal()
{
    char number = 0;
    if (::read(g_signalPair[1], &number, 1) == 1)
        request(QStringLiteral("signal ") + signalName(number));
}

void OrderlyQuit::request(const QString& reason, bool quitAfter)
{
    m_quitAfter = m_quitAfter || quitAfter;
    if (m_ending || m_quitting)
        return;
    m_ending = true;
    m_cutShort = false;
    m_elapsed.start();
    m_model.event(QStringLiteral("Arrêt demandé : ") + reason);
    Q_EMIT windingDown();
    // Asked for: no alert to the owner, the status says why.
    if (m_model.armed())
        m_model.toggleArmed();
    if (m_model.busy())
        m_model.finish();
    poll();
    if (m_ending)
        m_poll.start();
}

void OrderlyQuit::endNow(const QString& reason)
{
    request(reason, false);
    if (!m_ending)
        return;
    QEventLoop loop;
    connect(this, &OrderlyQuit::ended, &loop, &QEventLoop::quit);
    loop.exec();
}

bool OrderlyQuit::settled() const
{
    return !m_model.busy() && m_model.finalizingRecordings().isEmpty() && !m_model.hangUpPending();
}

void OrderlyQuit::poll()
{
    if (!settled() && m_elapsed.elapsed() < kBoundMs) {
        // Half the bound for the wind-down (the message, the last usage), the rest for the
        // recording and the hang-up's watch.
        if (m_model.busy() && !m_cutShort && m_elapsed.elapsed() >= kBoundMs / 2) {
            m_cutShort = true;
            m_model.finish();
        }
        return;
    }
    m_poll.stop();
    m_ending = false;
    Q_EMIT ended();
    if (std::exchange(m_quitAfter, false)) {
        m_quitting = true;
        // exit(), not quit(): nothing (a window that only hides) may refuse it.
        QCoreApplication::exit(0);
    }
}

} // namespace vemira::ui
