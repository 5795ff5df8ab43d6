#include "records/FileStamp.h"

#include <QFile>
#include <sys/stat.h>

namespace vemira {

namespace {
std::int64_t nanoseconds(const struct timespec& t)
{
    return std::int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}
} // namespace

FileStamp FileStamp::of(const QString& path)
{
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return {};
    FileStamp stamp;
    stamp.exists = true;
    stamp.device = std::uint64_t(info.st_dev);
    stamp.inode = std::uint64_t(info.st_ino);
    stamp.size = std::int64_t(info.st_size);
#if defined(__APPLE__)
    stamp.modifiedNs = nanoseconds(info.st_mtimespec);
    stamp.changedNs = nanoseconds(info.st_ctimespec);
#else
    stamp.modifiedNs = nanoseconds(info.st_mtim);
    stamp.changedNs = nanoseconds(info.st_ctim);
#endif
    return stamp;
}

} // namespace vemira
