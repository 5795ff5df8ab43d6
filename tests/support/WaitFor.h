#pragma once

#include <QTest>
#include <functional>

namespace vemira::testing {

// Lets the event loop run (process output, timers, queued hand-offs) until `condition` holds or
// `seconds` pass; whether it held.
inline bool waitFor(const std::function<bool()>& condition, double seconds = 5.0)
{
    return QTest::qWaitFor(condition, int(seconds * 1000));
}

} // namespace vemira::testing
