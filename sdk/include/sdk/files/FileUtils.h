#pragma once

#include <sys/stat.h>

#include <string>

namespace SDK {

/// Reads, writes, copies and describes single files. Stateless; any thread. Paths are raw bytes.
/// Operations that return int give 0 on success and -1 on failure with errno telling why.
class FileUtils {
  public:
    /// Lower-case hex SHA-256 of at most the first `limit` bytes of the regular file at `path`.
    /// Never follows a final symbolic link and never blocks: of a link it hashes the target's text,
    /// of a FIFO, socket or device the empty string. Fails for a directory and what cannot be read;
    /// `out` is then empty.
    static int GetFileSha256(const std::string& path, std::string& out, long limit);

    /// The same of the object `name` in the directory that is open as `directory` (O_PATH is
    /// enough), wherever that directory is by now. `name` is one component.
    static int GetFileSha256(int directory, const std::string& name, std::string& out, long limit);

    /// Reads at most the first `max_size` bytes of the regular file at `path` (links are followed).
    /// Never blocks on a FIFO: what is no regular file is a failure. A longer file is no error.
    static int ReadFile(const std::string& path, std::string& content, long max_size);

    /// Writes `content` to `path`, mode 0600. `append` false replaces the file in one step (a
    /// temporary sibling is written, synced and renamed), so that a reader or a crash sees the old
    /// or the new content and never a part; a failure leaves the old file as it was.
    static int WriteFile(const std::string& path, const std::string& content, bool append);

    /// Removes the file, link, FIFO or socket at `path`; a directory or a missing file is a
    /// failure.
    static int TalDeleteFile(const std::string& path);

    /// Copies at most the first `max_size` bytes of the regular file `from` over `to`; mode 0600.
    static int TalCopyFile(const std::string& from, const std::string& to, long max_size);

    /// Size in bytes of the regular file at `path` (links are followed).
    static int GetFileSize(const std::string& path, long& size);

    /// True when `path` is a regular file itself; a symbolic link to one is none, since callers
    /// decide by it what may be read.
    static bool IsFile(const std::string& path);

    /// True when `path` is a regular file (or a link to one) that begins with the ELF magic number.
    static bool IsFileElf(const std::string& path);

    /// The ten-character form of `ls -l`, such as "-rw-r--r--" or "drwxr-sr-t".
    static std::string StModeToStr(mode_t mode);
};

}  // namespace SDK
