#pragma once

#include <sys/types.h>

#include <string>

#include "sdk/files/PathAnchor.h"
#include "sdk/restore/StagingDirectory.h"

namespace SDK {

/// Puts one regular file or symbolic link back from its copy without a process: as rsync with
/// --archive --xattrs --checksum does it, but through held directories only and in one step for
/// whoever looks. Stateless; any thread.
class ObjectRestorer {
  public:
    enum class Outcome {
        kRestored,     ///< `live` is as `copy`; perhaps it has been all along
        kUnusual,      ///< `copy` is no file or link, or larger than asked for: nothing was changed
        kInterrupted,  ///< by the thread's CommandInterrupter: nothing was changed
        kFailed,       ///< see `step` and `error`
    };
    struct Result {
        Outcome outcome = Outcome::kFailed;
        int error = 0;     ///< errno of the first failure
        std::string step;  ///< what failed, to follow "cannot": "open the copy", "rename", ...
    };

    static constexpr off_t kMaxSize = 256 * 1024 * 1024;
    /// With 16 hexadecimal digits: the name under which new content waits for its rename.
    static constexpr const char* kTemporaryPrefix = ".morvane-restore-";

    /// Makes `live` as `copy`: content (holes stay holes), owner, mode, time of modification,
    /// extended attributes and access ACL; what `copy` does not have of these is taken away.
    ///
    /// A new file is written in `staging`, or beside `live` where that is null or cannot be used,
    /// without a name as long as possible; other objects are made beside `live`. It is then renamed
    /// over `live`. Nothing is followed, whatever others do in the directory meanwhile; a directory
    /// in the way goes with all that it holds. The same object stays only where nothing but its
    /// attributes differs, it has this one name, and neither its owner nor a setuid or setgid bit
    /// is to be set: a handle that somebody has kept on it must not become one on another's file.
    ///
    /// When only attributes cannot be set, the content is in place all the same and the outcome is
    /// kFailed. ESTALE: the copy changed meanwhile; EAGAIN: somebody replaced the restored object
    /// at the same moment. Blocks for the copying only, on no pipe and no lease; nothing is synced.
    static Result Restore(const PathAnchor::Entry& copy, const PathAnchor::Entry& live,
                          off_t max_size = kMaxSize, StagingDirectory* staging = nullptr);
};

}  // namespace SDK
