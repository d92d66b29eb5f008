#pragma once

#include <sys/types.h>

#include <ctime>
#include <map>
#include <string>

namespace Demo {

/// What a restore must bring back of one file, link or directory. Of a directory neither size nor
/// modification time count: they change with what comes and goes in it, and with every restore.
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

/// An object and all below it, by path relative to it; "" is the object itself. Empty: not there.
using TreeState = std::map<std::string, ObjectState>;

/// The state of `path` now; a final link is not followed. Single thread; reads every file.
TreeState TakeState(const std::string& path);

/// The first difference between `before` and `path` now, in words; empty when there is none. Files
/// are read only where everything else is equal, so that asking often is cheap.
std::string FindDifference(const TreeState& before, const std::string& path);

}  // namespace Demo
