#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

namespace SDK {

/// Compares and copies the content of open regular files, by offsets of its own. Every 8 MiB it
/// asks whether the thread's commands are interrupted. Stateless; any thread. -1 is a failure
/// (errno; ECANCELED when interrupted).
class FileContent {
  public:
    /// Up to this size content is handled in one piece, held in memory.
    static constexpr off_t kSmall = 64 * 1024;

    static bool IsInterrupted();

    /// Opens the regular file `name` in `directory` for reading. Follows no link, does not block on
    /// anything nor change the time of access where that can be helped. -1: EINVAL when it is no
    /// regular file.
    static int Open(int directory, const std::string& name, struct stat& info);

    /// Reads the whole of a small file of `size` bytes; ESTALE when it has another size.
    static int ReadSmall(int file, off_t size, std::string& content);

    /// 1 when the first `size` bytes of both are the same, 0 when not.
    static int IsEqual(int one, int other, off_t size);

    /// Writes all of `content` to the empty file `to`.
    static int Write(int to, const std::string& content);

    /// Copies the file `from`, described by `info`, to the empty file `to`; holes stay holes and
    /// extents are shared where the file system can. ESTALE when `from` becomes shorter.
    static int Copy(int from, int to, const struct stat& info);

    /// True when `info` shows that a part of the file is not stored.
    static bool HasHoles(const struct stat& info);
};

}  // namespace SDK
