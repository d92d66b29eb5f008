#pragma once

#include <sys/types.h>

#include <string>

#include "sdk/files/PathAnchor.h"
#include "sdk/restore/StagingDirectory.h"

namespace SDK {

/// Restores one regular file or symbolic link from its copy without a process. The result is that
/// of rsync with --archive --xattrs --checksum, but through open directories only, and readers see
/// one step. Stateless and thread-safe.
class ObjectRestorer {
  public:
    enum class Outcome {
        kRestored,     ///< `live` equals `copy`, now or all along
        kUnusual,      ///< `copy` is no file or link, or too large: nothing was changed
        kInterrupted,  ///< by the thread's CommandInterrupter: nothing was changed
        kFailed,       ///< see `step` and `error`
    };
    struct Result {
        Outcome outcome = Outcome::kFailed;
        int error = 0;     ///< errno of the first failure
        std::string step;  ///< what failed, to follow "cannot": "open the copy", "rename", ...
    };

    static constexpr off_t kMaxSize = 256 * 1024 * 1024;
    /// The prefix of temporary names; 16 hexadecimal digits follow.
    static constexpr const char* kTemporaryPrefix = ".morvane-restore-";

    /// Makes `live` equal to `copy`: content (holes stay holes), owner, mode, modification time,
    /// extended attributes and access ACL. Attributes that `copy` does not have are removed.
    ///
    /// A new file is written in `staging`; beside `live`, without a name where possible, when that
    /// is null or cannot be used. Other objects are made beside `live`. It is then renamed over
    /// `live`.
    /// No link is followed, whatever others do in the directory meanwhile. A directory in its place
    /// is removed with everything in it. The existing object is kept only when nothing but
    /// attributes differ, it has one name, and neither its owner nor a setuid or setgid bit
    /// changes: an open handle of another user must not become one on a privileged file.
    ///
    /// When only attributes cannot be set, the content is restored and the outcome is kFailed.
    /// ESTALE: the copy changed meanwhile. EAGAIN: another process replaced the restored object.
    /// Blocks only for copying, never on a pipe or a lease; does not sync.
    static Result Restore(const PathAnchor::Entry& copy, const PathAnchor::Entry& live,
                          off_t max_size = kMaxSize, StagingDirectory* staging = nullptr);
};

}  // namespace SDK
