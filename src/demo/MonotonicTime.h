#pragma once

#include <QtGlobal>
#include <time.h>

namespace vemira::e2e {

// One time line shared by every process of the scenario (softphone, stand-in, Vemira, the
// test), so a mark taken in one process can be subtracted from a mark taken in another.
inline qint64 monotonicNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return qint64(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

inline double nsToSeconds(qint64 ns)
{
    return double(ns) / 1e9;
}

} // namespace vemira::e2e
