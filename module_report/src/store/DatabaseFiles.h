#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

namespace Engine {

/// The identity of the file at a path, to notice that it was removed or replaced.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileIdentity& other) const {
        return device == other.device && inode == other.inode;
    }
};

/// All zero when the file is missing.
FileIdentity IdentifyFile(const std::string& path);

/// Renames the database `path` and its write-ahead log to `path` + ".corrupt-<time>" and removes
/// all but the newest few of such files. Returns the new name; "" (errno) when the rename fails.
std::string SetDatabaseAside(const std::string& path, std::int64_t epoch_ms);

}  // namespace Engine
