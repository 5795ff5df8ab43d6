#pragma once

#include <QString>
#include <cstdint>

namespace vemira {

// What tells that a file was replaced or rewritten since we last looked, without reading it:
// every atomic replacement gives a new inode, and any rewrite changes the size or the
// modification time (nanoseconds where the file system keeps them).
struct FileStamp {
    bool exists = false;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modifiedNs = 0;
    std::int64_t changedNs = 0;

    static FileStamp of(const QString& path);
    bool operator==(const FileStamp&) const = default;
};

} // namespace vemira
