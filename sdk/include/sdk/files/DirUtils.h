#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace SDK {

/// Examines, makes and removes directories. Stateless and thread-safe. Operations that return int
/// give 0 on success and -1 on failure (errno).
class DirUtils {
  public:
    /// True when `path` is a directory, not a symbolic link to one; a trailing "/" is ignored.
    /// Callers decide by it what they may delete.
    static bool IsDir(const std::string& path);

    /// Removes the directory `path` and everything in it. Never follows a symbolic link, also not
    /// one that replaces a directory meanwhile. Continues after an object that cannot be removed
    /// and then fails. A missing directory is a failure. Refuses "/".
    static int DeleteDir(const std::string& path);

    /// Removes the object at `path` below the directory `root`; a directory with everything in it.
    /// Never follows a symbolic link, neither at `root` nor below: a link on the way is a failure
    /// (ENOTDIR), a link at the end is removed itself. `path` must be relative and without ".."
    /// (EINVAL). A missing object is a failure (ENOENT).
    static int DeleteBeneath(const std::string& root, const std::string& path);

    /// Removes `name` in the open directory `directory`; a directory with everything in it. Never
    /// follows a symbolic link. A missing object is a failure (ENOENT).
    static int DeleteAt(int directory, const std::string& name);

    /// The same, but stops after `limit_ms` (ETIMEDOUT); another call continues.
    static int DeleteAt(int directory, const std::string& name, std::int64_t limit_ms);

    /// Makes the directory `path` and all missing parents, each with exactly `mode`, whatever the
    /// umask. An existing directory is success and keeps its mode.
    static int MakeDirs(const std::string& path, mode_t mode);
};

}  // namespace SDK
