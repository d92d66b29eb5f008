#pragma once

#include <atomic>
#include <utility>

#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// A directory to which only the caller can write, on the file system of what is restored. Restores
/// write new files there, without a name, and link them into the site when they are complete. So
/// inotify tells the site's watchers nothing of the writing. Thread-safe.
class StagingDirectory {
  public:
    /// `directory` may be one that is not open: restores then write beside their targets.
    explicit StagingDirectory(FileDescriptor directory) : directory_(std::move(directory)) {}

    /// -1 when restores must not use it.
    int Descriptor() const { return is_given_up_ ? -1 : directory_.Get(); }

    /// Files that were made here cannot be linked into the site (EXDEV): another mount, subvolume
    /// or quota project.
    void GiveUp() { is_given_up_ = true; }

  private:
    const FileDescriptor directory_;
    std::atomic<bool> is_given_up_{false};
};

}  // namespace SDK
