#pragma once

#include <optional>
#include <string>

#include "base/Time.h"
#include "base/Tree.h"

namespace Bench {

/// Waits for the restore of one file. It sleeps until an inotify event of the file's directory, so
/// that it takes little processor time from the product. Create it before the change. Not
/// thread-safe.
class FileObserver {
  public:
    explicit FileObserver(std::string path);
    ~FileObserver();
    FileObserver(const FileObserver&) = delete;
    FileObserver& operator=(const FileObserver&) = delete;

    /// The time at which the file had its size and time again (IsRestored); none after the
    /// deadline. Throws Interrupted.
    std::optional<Clock::time_point> AwaitRestore(const FileState& file,
                                                  milliseconds deadline) const;

  private:
    const std::string path_;
    const int inotify_;
};

}  // namespace Bench
