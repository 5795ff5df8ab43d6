#pragma once

#include "records/DataFolder.h"

#include <QObject>

class QLocalServer;

namespace vemira::ui {

// The running application listens on a local socket named after its data folder; a second
// launch on the same folder asks it to bring its window forward and then exits, as a user
// who clicks the menu entry again expects. The data folder's lock still decides who runs:
// this only carries the request. Main thread only.
class SingleInstance : public QObject {
    Q_OBJECT
public:
    explicit SingleInstance(const DataFolder& folder, QObject* parent = nullptr);

    // Starts listening (a socket left by a killed holder is replaced: the caller holds the
    // lock). False when the socket could not be created; the application still runs.
    bool listen();

    // In the second launch: true when a running application took the request. Waits a
    // moment for one that has just taken the lock and is not listening yet.
    static bool askRunningToShow(const DataFolder& folder);

Q_SIGNALS:
    void showRequested();

private:
    static QString serverName(const DataFolder& folder);
    QLocalServer* m_server;
    QString m_name;
};

} // namespace vemira::ui
