#pragma once

#include <sys/types.h>

#include <ctime>
#include <map>
#include <string>

namespace Demo {

/// What a restore must bring back of one file, link or directory. The size and modification time of
/// a directory do not count: they change with its entries, and with every restore.
struct ObjectState {
    enum class Kind { kFile, kDirectory, kLink, kOther };

    Kind kind = Kind::kOther;
    mode_t mode = 0;  ///< permission bits
    uid_t uid = 0;
    gid_t gid = 0;
    off_t size = 0;
    std::time_t mtime = 0;
    std::string content;  ///< of a file its SHA-256, of a link its target
};

/// An object and everything below it, by relative path; "" is the object itself. Empty: it is
/// missing.
using TreeState = std::map<std::string, ObjectState>;

/// The current state of `path`; does not follow a final link. Reads every file. Thread-safe.
TreeState TakeState(const std::string& path);

/// The first difference between `before` and `path` now, in words; empty when there is none. Reads
/// a file only when everything else is equal, so frequent calls are cheap. Thread-safe.
std::string FindDifference(const TreeState& before, const std::string& path);

}  // namespace Demo
