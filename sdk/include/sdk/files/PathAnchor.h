#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>
#include <string_view>

#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// A directory that is opened once and held; what lies below it is resolved from it and not from
/// the root of the file system. So nobody who may write below it, or moves it away, can lead the
/// caller out of it.
///
/// A path `below` is relative, raw bytes, of any length; "" is the anchor itself, a trailing "/" is
/// ignored. No symbolic link is followed in it, also not at its end. Every operation fails with
/// EINVAL for an absolute path, for ".." and for a NUL byte in it; with ELOOP or ENOTDIR for a link
/// or another object on the way; with ENOENT for what is missing. Mount points are crossed.
///
/// Immutable once open: any number of threads. The descriptors handed out are the caller's.
class PathAnchor {
  public:
    /// An object by the directory that holds it and its name in there. While `directory` is held,
    /// operations such as openat(2) on the two cannot be led elsewhere, provided that they do not
    /// follow a link at `name`.
    struct Entry {
        FileDescriptor directory;  // not open: it could not be resolved (errno)
        std::string name;          // one component, neither "." nor ".."

        bool IsOpen() const { return directory.IsOpen(); }
    };

    /// Opens the directory `path`. Links on the way to it are followed, its last component must be
    /// none (ENOTDIR or ELOOP). Null on failure (errno). Does not block on a pipe or device.
    static std::unique_ptr<PathAnchor> Open(const std::string& path);

    /// Takes over a directory that is open already (O_RDONLY), as the one at `path`. Null on
    /// failure (errno).
    static std::unique_ptr<PathAnchor> Hold(FileDescriptor directory, const std::string& path);

    /// As given to Open, without trailing "/" or "/.".
    const std::string& Path() const { return path_; }

    /// The directory (O_RDONLY, close-on-exec); stays the anchor's. Its file offset is shared: who
    /// wants to list the directory opens it with OpenDirectory("").
    int Descriptor() const { return directory_.Get(); }

    /// True while Path() leads to this very directory: false once it, or a directory above it, has
    /// been moved, removed, replaced or mounted over.
    bool IsInPlace() const;

    /// Opens the directory `below` for reading and listing; not open on failure (errno).
    FileDescriptor OpenDirectory(std::string_view below) const;

    /// Opens the directory that holds `below` (O_PATH: to resolve names in it, not to list it).
    /// The object itself need not exist. EINVAL for "" and for a path that ends in ".".
    Entry OpenParent(std::string_view below) const;

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
