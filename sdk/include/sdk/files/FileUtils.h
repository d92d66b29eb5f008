#pragma once

#include <sys/stat.h>

#include <string>

namespace SDK {

/// Reads, writes, copies and describes single files. Stateless and thread-safe. Paths are raw
/// bytes. Operations that return int give 0 on success and -1 on failure (errno).
class FileUtils {
  public:
    /// Sets `out` to the lower-case hex SHA-256 of at most the first `limit` bytes of the regular
    /// file at `path`. Never follows a final symbolic link and never blocks: it hashes a link's
    /// text, and nothing for a FIFO, socket or device. Fails for directories and unreadable files;
    /// `out` is then empty.
    static int GetFileSha256(const std::string& path, std::string& out, long limit);

    /// The same for the object `name` (one component) in the open directory `directory`, wherever
    /// that directory has been moved. O_PATH is enough.
    static int GetFileSha256(int directory, const std::string& name, std::string& out, long limit);

    /// Reads at most the first `max_size` bytes of the regular file at `path`; follows links. A
    /// longer file is no error. Any other kind of object is a failure; it never blocks on a FIFO.
    static int ReadFile(const std::string& path, std::string& content, long max_size);

    /// Writes `content` to `path`, mode 0600. Without `append` it replaces the file in one step: it
    /// writes and syncs a temporary file beside it and renames that. So readers and crashes never
    /// see a part, and a failure leaves the old file unchanged.
    static int WriteFile(const std::string& path, const std::string& content, bool append);

    /// Removes the file, link, FIFO or socket at `path`. A directory or a missing file is a
    /// failure.
    static int TalDeleteFile(const std::string& path);

    /// Copies at most the first `max_size` bytes of the regular file `from` over `to`; mode 0600.
    static int TalCopyFile(const std::string& from, const std::string& to, long max_size);

    /// Size in bytes of the regular file at `path` (links are followed).
    static int GetFileSize(const std::string& path, long& size);

    /// True when `path` is a regular file, not a symbolic link to one. Callers decide by it what
    /// they may read.
    static bool IsFile(const std::string& path);

    /// True when `path` is a regular file (or a link to one) that begins with the ELF magic number.
    static bool IsFileElf(const std::string& path);

    /// The ten-character form of `ls -l`, such as "-rw-r--r--" or "drwxr-sr-t".
    static std::string StModeToStr(mode_t mode);
};

}  // namespace SDK
