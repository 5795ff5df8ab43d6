#include "PrivateNetwork.h"

#include <QFile>
#include <QStringList>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vemira {

bool inPrivateNetwork()
{
    // /proc/self/net follows the namespace; /sys/class/net shows the one sysfs was mounted in.
    QFile devices(QStringLiteral("/proc/self/net/dev"));
    if (!devices.open(QIODevice::ReadOnly))
        return false;
    QStringList interfaces;
    for (const QByteArray& line : devices.readAll().split('\n')) {
        if (line.contains(':'))
            interfaces.append(QString::fromLatin1(line.left(line.indexOf(':')).trimmed()));
    }
    return interfaces == QStringList{QStringLiteral("lo")};
}

bool enterPrivateNetwork(QString* error)
{
    if (!inPrivateNetwork() && ::unshare(CLONE_NEWNET) != 0) {
        *error = QStringLiteral("unshare(CLONE_NEWNET): %1")
                     .arg(QString::fromLocal8Bit(strerror(errno)));
        return false;
    }
    // A new namespace's loopback starts down: the equivalent of `ip link set lo up`.
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *error = QStringLiteral("socket: %1").arg(QString::fromLocal8Bit(strerror(errno)));
        return false;
    }
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    if (up && !(request.ifr_flags & IFF_UP)) {
        request.ifr_flags = short(request.ifr_flags | IFF_UP);
        up = ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    }
    if (!up)
        *error = QStringLiteral("lo: %1").arg(QString::fromLocal8Bit(strerror(errno)));
    ::close(fd);
    return up;
}

} // namespace vemira
