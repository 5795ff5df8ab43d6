#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

class QSocketNotifier;

namespace vemira {
class AppModel;
}

namespace vemira::ui {

// Ends the application the way "Quitter Vemira" does, whoever asks: SIGTERM, SIGHUP and
// SIGINT (written by the handler to a socket pair the event loop reads, since a handler may
// do nothing else safely), the end of the desktop session and the application's own quit.
// The receptionist goes off, the call under way is hung up and saved and its recording
// finished, within `kBoundMs`; then the event loop ends. One instance, main thread only.
class OrderlyQuit final : public QObject {
    Q_OBJECT

public:
    // How long the call's end may take; past it the wind-down is cut short (record, recording
    // and transcript are still written).
    static constexpr int kBoundMs = 6000;

    // `model` must outlive this object. Installs the signal handlers and listens to the
    // application's session and quit signals.
    explicit OrderlyQuit(AppModel& model, QObject* parent = nullptr);
    // Puts the default signal handlers back.
    ~OrderlyQuit() override;

    // Ends what runs, then (with `quitAfter`) quits the event loop; `reason` goes to the log.
    void request(const QString& reason, bool quitAfter = true);
    // The same, returning only once it is done: for callers that must not return earlier
    // (the session manager waits for this answer before it ends the session).
    void endNow(const QString& reason);

Q_SIGNALS:
    // The wind-down begins: what is disarmed from now on was not the owner's choice.
    void windingDown();
    void ended();

private:
    void readSignal();
    void poll();
    bool settled() const;

    AppModel& m_model;
    QSocketNotifier* m_notifier = nullptr;
    QTimer m_poll;
    QElapsedTimer m_elapsed;
    bool m_ending = false;
    bool m_quitAfter = false;
    bool m_cutShort = false;
    bool m_quitting = false;
};

} // namespace vemira::ui
