#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

namespace SDK {

/// Compares and copies the content of open regular files without using their file offsets. Checks
/// the thread's CommandInterrupter every 8 MiB. Failures give -1 (errno; ECANCELED when
/// interrupted). Stateless and thread-safe.
class FileContent {
  public:
    /// Content up to this size is handled in memory in one piece.
    static constexpr off_t kSmall = 64 * 1024;

    /// Opens the regular file `name` in `directory` for reading. Follows no link, does not block,
    /// and leaves the access time unchanged where possible. -1 with EINVAL for other objects.
    static int Open(int directory, const std::string& name, struct stat& info);

    /// Reads a small file of `size` bytes completely; ESTALE when its size differs.
    static int ReadSmall(int file, off_t size, std::string& content);

    /// 1 when the first `size` bytes are equal, 0 when they differ; only from `begin` on.
    static int IsEqual(int one, int other, off_t size, off_t begin = 0);

    /// Writes all of `content` to the empty file `to`.
    static int Write(int to, const std::string& content);

    /// Copies the file `from`, which `info` describes, to the empty file `to`. Holes stay holes;
    /// extents are shared where the file system can. ESTALE when `from` becomes shorter.
    static int Copy(int from, int to, const struct stat& info);

    /// True when the file has holes.
    static bool HasHoles(const struct stat& info);
};

}  // namespace SDK
