#pragma once

#include <atomic>
#include <ctime>
#include <utility>

#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// A directory to which only the caller can write, on the file system of what is restored. Restores
/// write new files there and rename them into the site when they are complete. So inotify tells the
/// site's watchers nothing of the writing, and no user of the site meets an incomplete file.
/// Thread-safe.
class StagingDirectory {
  public:
    /// `directory` may be one that is not open: restores then write beside their targets.
    explicit StagingDirectory(FileDescriptor directory) : directory_(std::move(directory)) {}

    /// -1 when restores must not use it.
    int Descriptor() const { return is_given_up_ ? -1 : directory_.Get(); }

    /// Removes the unfinished files of restores that were killed some time before `now`, in seconds
    /// since the epoch.
    void RemoveAbandoned(std::time_t now) const;

    /// Files that were made here cannot be renamed into the site (EXDEV): another mount, subvolume
    /// or quota project.
    void GiveUp() { is_given_up_ = true; }

  private:
    const FileDescriptor directory_;
    std::atomic<bool> is_given_up_{false};
};

}  // namespace SDK
