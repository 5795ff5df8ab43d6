#pragma once

#include <QString>

namespace vemira {

// Moves this process (and every process it starts afterwards) into a network namespace of
// its own that holds only the loopback interface, brought up. SIP softphones bind fixed
// ports and some bind every address: inside, two runs on one machine cannot clash and
// nothing leaves loopback. Call before any thread starts (first thing in main): a namespace
// belongs to the calling thread. Needs root (CAP_SYS_ADMIN); false with `error` otherwise.
bool enterPrivateNetwork(QString* error);

// True when the only network interface is the loopback.
bool inPrivateNetwork();

} // namespace vemira
