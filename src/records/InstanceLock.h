#pragma once

#include "core/AppError.h"
#include "records/DataFolder.h"

#include <QLockFile>
#include <memory>

namespace vemira {

// Only one receptionist per data folder: the desktop application and `vemira standby` each
// hold this lock for as long as they run. A lock left by a process that was killed is taken
// over; one held by a live process is refused with a French sentence naming that process.
class InstanceLock {
public:
    // `program` names this process in the refusal another one will get ("vemira-app",
    // "vemira standby").
    static Result<std::unique_ptr<InstanceLock>> acquire(const DataFolder& folder,
                                                         const QString& program);
    ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    static QString fileName() { return QStringLiteral("vemira.lock"); }

private:
    explicit InstanceLock(const QString& path) : m_lock(path) {}
    QLockFile m_lock;
};

} // namespace vemira
