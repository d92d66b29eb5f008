#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>
#include <string_view>

#include "sdk/files/FileDescriptor.h"
#include "sdk/files/MountPoints.h"

namespace SDK {

/// A directory that stays open, so that paths below it are resolved from it and not from the file
/// system's root. Users who may write below the directory, or move it, cannot redirect the caller.
///
/// A path `below` is relative, raw bytes, of any length; "" is the anchor itself; a trailing "/" is
/// ignored. Symbolic links are never followed, also not at the end. Mount points are crossed unless
/// they are refused. Every operation fails with EINVAL for an absolute path, "..", or a NUL byte;
/// with ELOOP or ENOTDIR for a link or another object on the way; with ENOENT for a missing object.
///
/// Immutable after Open, so thread-safe. The caller owns the descriptors that it gets.
class PathAnchor {
  public:
    /// An object as its open parent directory and its name there. While `directory` is open, calls
    /// such as openat(2) with both cannot be redirected if they do not follow a link at `name`.
    struct Entry {
        FileDescriptor directory;  // not open when it could not be resolved (errno)
        std::string name;          // one component, neither "." nor ".."

        bool IsOpen() const { return directory.IsOpen(); }
    };

    /// Opens the directory `path`. Follows links on the way, but its last component must not be a
    /// link (ENOTDIR or ELOOP). Null on failure (errno). Does not block on a pipe or device.
    static std::unique_ptr<PathAnchor> Open(const std::string& path);

    /// Takes ownership of an open directory (O_RDONLY) as the one at `path`. Null on failure
    /// (errno).
    static std::unique_ptr<PathAnchor> Hold(FileDescriptor directory, const std::string& path);

    /// As given to Open, without trailing "/" or "/.".
    const std::string& Path() const { return path_; }

    /// The directory (O_RDONLY, close-on-exec); the anchor keeps ownership. Its file offset is
    /// shared: list the directory through OpenDirectory("") instead.
    int Descriptor() const { return directory_.Get(); }

    /// True while Path() leads to this directory; false when it or a parent was moved, removed,
    /// replaced or mounted over.
    bool IsInPlace() const;

    /// Opens the directory `below` for reading and listing; not open on failure (errno).
    FileDescriptor OpenDirectory(std::string_view below,
                                 MountPoints mount_points = MountPoints::kCrossed) const;

    /// Opens the parent directory of `below` (O_PATH: for resolving names, not for listing). The
    /// object itself may be missing, or a mount point. EINVAL for "" and for a path that ends in
    /// "/.".
    Entry OpenParent(std::string_view below,
                     MountPoints mount_points = MountPoints::kCrossed) const;

    /// Describes the object `below` as lstat(2) does. 0, or -1 (errno).
    int Stat(std::string_view below, struct stat& info) const;

  private:
    PathAnchor(std::string path, FileDescriptor directory, const struct stat& info);

    const std::string path_;
    const FileDescriptor directory_;
    const dev_t device_;
    const ino_t inode_;
};

}  // namespace SDK
