#pragma once

#include <sys/types.h>

#include <string>

namespace SDK {

/// Looks at, makes and removes directories. Stateless; any thread. 0 is success, -1 failure
/// (errno).
class DirUtils {
  public:
    /// True when `path` is a directory itself: a symbolic link to a directory is not one, however
    /// it is spelled (a trailing "/" is ignored), since callers decide by it what may be deleted.
    static bool IsDir(const std::string& path);

    /// Removes the directory `path` with all that it holds. Never follows a symbolic link, also not
    /// one that is put in place of a directory meanwhile. A missing directory is a failure; goes on
    /// past what cannot be removed and then fails. Refuses "/".
    static int DeleteDir(const std::string& path);

    /// Removes what lies at `path` below the directory `root`, whatever it is; a directory with all
    /// that it holds. Never follows a symbolic link, neither at `root` itself nor anywhere below
    /// it, also not one that is put there meanwhile: a link on the way is a failure (ENOTDIR), a
    /// link at its end is removed itself. `path` is relative; ".." in it is refused (EINVAL). A
    /// missing object is a failure (ENOENT).
    static int DeleteBeneath(const std::string& root, const std::string& path);

    /// Removes `name` in the directory that is open as `directory`, whatever it is; a directory
    /// with all that it holds. Never follows a symbolic link. A missing object is a failure
    /// (ENOENT).
    static int DeleteAt(int directory, const std::string& name);

    /// Makes the directory `path` with all missing parents, each with `mode` (whatever the umask).
    /// An existing directory is success and keeps its mode.
    static int MakeDirs(const std::string& path, mode_t mode);
};

}  // namespace SDK
