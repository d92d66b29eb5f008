#pragma once

#include "sdk/files/ExclusionFilter.h"
#include "sdk/files/PathAnchor.h"
#include "sdk/restore/ObjectRestorer.h"

namespace SDK {

/// Restores a directory and everything in it from its copy without a process. The result is that of
/// rsync with --archive --hard-links --xattrs --delete --checksum, but through open directories
/// only, and each object in one step. Stateless and thread-safe.
class TreeRestorer {
  public:
    using ExclusionFilter = SDK::ExclusionFilter;

    /// How a regular file is compared with its copy.
    enum class Comparison {
        kContent,  ///< everything that a restore sets, with the content
        /// The same, but a file that is unchanged since its copy was made is not read: its ctime,
        /// which only the kernel sets, is older than the copy's, and size, time, mode and owner are
        /// equal.
        kChanged,
    };

    /// Makes the directory `live` equal to the directory `copy`, whatever is at `live` now. Equal
    /// objects are not changed; ObjectRestorer describes single objects. Hard links of the copy
    /// become hard links. Directories get their times last.
    ///
    /// Objects that `filter` excludes are left alone on both sides: neither restored nor removed;
    /// foreign directories above them stay too. One exception: a directory where the copy has
    /// another kind of object is removed with everything in it.
    ///
    /// Continues after failures; the result is then kFailed with the first failure. Where the copy
    /// cannot be listed, nothing is removed. EXDEV: something is mounted in the live tree; it is
    /// left alone. EAGAIN: directories were moved meanwhile. ETIMEDOUT: foreign objects of one
    /// directory remain after ten seconds. kInterrupted keeps the work done so far.
    ///
    /// Uses some ten descriptors, the names of the directories still to visit, and one path for
    /// each object with several names. Blocks for as long as reading both trees takes.
    static ObjectRestorer::Result Restore(const PathAnchor::Entry& copy,
                                          const PathAnchor::Entry& live,
                                          const ExclusionFilter& filter,
                                          Comparison comparison = Comparison::kContent,
                                          StagingDirectory* staging = nullptr);
};

}  // namespace SDK
