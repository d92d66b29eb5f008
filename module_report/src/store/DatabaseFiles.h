#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

namespace Engine {

/// Which file lies at a path; for noticing that it was removed or replaced.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileIdentity& other) const {
        return device == other.device && inode == other.inode;
    }
};

/// All zero when there is none.
FileIdentity IdentifyFile(const std::string& path);

/// Renames the database `path`, with the log that belongs to it, to `path` + ".corrupt-<time>", and
/// removes all but the newest few of such files. The new name, or "" with errno when it cannot be
/// renamed.
std::string SetDatabaseAside(const std::string& path, std::int64_t epoch_ms);

}  // namespace Engine
