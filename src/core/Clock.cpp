#include "core/Clock.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>
#include <algorithm>
#include <cmath>
#include <vector>

namespace vemira {

namespace {

class TimerHandle final : public TaskHandle {
public:
    explicit TimerHandle(QTimer* timer) : m_timer(timer) {}
    ~TimerHandle() override { cancel(); }
    void cancel() override
    {
        if (m_timer) {
            m_timer->stop();
            m_timer->deleteLater();
            m_timer = nullptr;
        }
    }

private:
    QPointer<QTimer> m_timer;
};

TaskHandlePtr startTimer(double seconds, bool repeating, QObject* context,
                         std::function<void()> task)
{
    auto* timer = new QTimer(context);
    timer->setSingleShot(!repeating);
    timer->setTimerType(Qt::PreciseTimer);
    timer->setInterval(std::max(0, static_cast<int>(std::lround(seconds * 1000.0))));
    QObject::connect(timer, &QTimer::timeout, timer, [timer, repeating, task = std::move(task)] {
        if (!repeating)
            timer->deleteLater();
        task();
    });
    timer->start();
    return std::make_unique<TimerHandle>(timer);
}

} // namespace

SystemClock::SystemClock()
{
    m_elapsed.start();
}

double SystemClock::uptime() const
{
    return static_cast<double>(m_elapsed.nsecsElapsed()) / 1e9;
}

QDateTime SystemClock::now() const
{
    return QDateTime::currentDateTime();
}

TaskHandlePtr SystemClock::schedule(double delaySeconds, QObject* context,
                                    std::function<void()> task)
{
    return startTimer(delaySeconds, false, context, std::move(task));
}

TaskHandlePtr SystemClock::repeat(double periodSeconds, QObject* context,
                                  std::function<void()> task)
{
    return startTimer(periodSeconds, true, context, std::move(task));
}

SystemClock& SystemClock::instance()
{
    static SystemClock clock;
    return clock;
}

struct ManualQueue {
    struct Item {
        quint64 id;
        double due;
        double period; // 0 = once
        bool hasContext;
        QPointer<QObject> context;
        std::function<void()> task;
    };
    std::vector<Item> items;
    quint64 nextId = 1;

    void remove(quint64 id)
    {
        items.erase(
            std::remove_if(items.begin(), items.end(), [id](const Item& i) { return i.id == id; }),
            items.end());
    }
};

class ManualClock::Handle final : public TaskHandle {
public:
    Handle(std::weak_ptr<ManualQueue> queue, quint64 id) : m_queue(std::move(queue)), m_id(id) {}
    ~Handle() override { cancel(); }
    void cancel() override
    {
        if (auto q = m_queue.lock())
            q->remove(m_id);
        m_queue.reset();
    }

private:
    std::weak_ptr<ManualQueue> m_queue;
    quint64 m_id;
};

ManualClock::ManualClock(QDateTime start)
    : m_start(std::move(start)), m_queue(std::make_shared<ManualQueue>())
{}

ManualClock::~ManualClock() = default;

QDateTime ManualClock::now() const
{
    return m_start.addMSecs(static_cast<qint64>(std::llround(uptime() * 1000.0)));
}

TaskHandlePtr ManualClock::schedule(double delaySeconds, QObject* context,
                                    std::function<void()> task)
{
    const quint64 id = m_queue->nextId++;
    m_queue->items.push_back({id, uptime() + std::max(0.0, delaySeconds), 0.0, context != nullptr,
                              context, std::move(task)});
    return std::make_unique<Handle>(m_queue, id);
}

TaskHandlePtr ManualClock::repeat(double periodSeconds, QObject* context,
                                  std::function<void()> task)
{
    const quint64 id = m_queue->nextId++;
    const double period = std::max(1e-6, periodSeconds);
    m_queue->items.push_back(
        {id, uptime() + period, period, context != nullptr, context, std::move(task)});
    return std::make_unique<Handle>(m_queue, id);
}

void ManualClock::advance(double seconds)
{
    const double target = uptime() + std::max(0.0, seconds);
    for (;;) {
        auto& items = m_queue->items;
        auto next = std::min_element(items.begin(), items.end(), [](const auto& a, const auto& b) {
            return a.due < b.due || (a.due == b.due && a.id < b.id);
        });
        if (next == items.end() || next->due > target + 1e-9)
            break;
        m_uptime = std::max(uptime(), next->due);
        if (next->hasContext && !next->context) {
            items.erase(next);
            continue;
        }
        // Copy before running: the task may schedule or cancel, invalidating `next`.
        auto task = next->task;
        if (next->period > 0)
            next->due += next->period;
        else
            items.erase(next);
        task();
    }
    m_uptime = target;
}

int ManualClock::pendingTasks() const
{
    return static_cast<int>(m_queue->items.size());
}

} // namespace vemira
