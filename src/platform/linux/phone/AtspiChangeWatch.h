#pragma once

#include <QDBusMessage>
#include <QHash>
#include <QObject>
#include <QString>

namespace vemira {

// The changes of structure the applications announce, counted per sender. On a connection of
// its own: libatspi's must receive no events (it would make requests from inside their
// handling), and nothing is asked of any application while an event is counted. Signals are
// handled by the event loop of the thread that made it.
class ChangeWatch final : public QObject {
    Q_OBJECT

public:
    // `address`: the accessibility bus.
    explicit ChangeWatch(const QString& address);
    ~ChangeWatch() override;
    ChangeWatch(const ChangeWatch&) = delete;
    ChangeWatch& operator=(const ChangeWatch&) = delete;

    bool watching() const { return m_watching; }
    // The registry announces the applications that come and go.
    quint64 applicationListChanges() const { return m_counts.value(m_registry); }
    quint64 changesFrom(const QString& busName) const { return m_counts.value(busName); }

private Q_SLOTS:
    void changed(const QDBusMessage& message);

private:
    QString m_name;
    QString m_registry;
    bool m_watching = false;
    QHash<QString, quint64> m_counts;
};

} // namespace vemira
