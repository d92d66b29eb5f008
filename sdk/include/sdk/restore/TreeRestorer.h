#pragma once

#include "sdk/files/PathAnchor.h"
#include "sdk/files/Shield.h"
#include "sdk/restore/ObjectRestorer.h"

namespace SDK {

/// Puts a directory with all that it holds back from its copy without a process: as rsync with
/// --archive --hard-links --xattrs --delete --checksum does it, but through held directories only,
/// and each object in one step for whoever looks. Stateless; any thread.
class TreeRestorer {
  public:
    using Shield = SDK::Shield;

    /// How a regular file is found to be as its copy.
    enum class Look {
        kContent,  ///< by all that a restore sets, its content included
        /// The same, but what has not been changed since its copy was made is not read: its ctime,
        /// which only the kernel sets, is older, and size, time, mode and owner are equal.
        kChanged,
    };

    /// Makes the directory `live` as the directory `copy`, whatever stands there now. What is equal
    /// already is not touched; ObjectRestorer says what becomes of single objects. Names that are
    /// linked with each other in the copy become so, directories get their times last.
    ///
    /// What `shield` keeps (an empty one: nothing) is left alone on both sides: neither restored
    /// nor removed; also the foreign directories above it stay. Only a directory where the copy has
    /// something else goes with all that it holds.
    ///
    /// Goes on past what fails and is then kFailed with the first failure; what could not be listed
    /// in the copy is not removed live. EXDEV: something is mounted in the live tree, and is left
    /// alone. EAGAIN: directories were moved meanwhile. ETIMEDOUT: foreign objects of one directory
    /// are still there after ten seconds of removing. kInterrupted leaves what is done by then.
    ///
    /// Holds some ten descriptors, the names of the directories that wait beside the way down, and
    /// one path for each object with several names. Takes as long as reading both trees.
    static ObjectRestorer::Result Restore(const PathAnchor::Entry& copy,
                                          const PathAnchor::Entry& live, const Shield& shield,
                                          Look look = Look::kContent,
                                          StagingDirectory* staging = nullptr);
};

}  // namespace SDK
