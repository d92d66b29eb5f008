#pragma once

#include <optional>
#include <string>

#include "base/Time.h"
#include "base/Tree.h"

namespace Bench {

/// Sees one file come back, and takes next to no processor time from the guard meanwhile: it sleeps
/// until the kernel tells of a change in the file's directory. To be made before the change. One
/// thread.
class FileObserver {
  public:
    explicit FileObserver(std::string path);
    ~FileObserver();
    FileObserver(const FileObserver&) = delete;
    FileObserver& operator=(const FileObserver&) = delete;

    /// When the file was seen with that size and time again (IsBack); nothing by the deadline.
    /// Throws Stopped.
    std::optional<Clock::time_point> AwaitBack(const FileState& file, milliseconds deadline) const;

  private:
    const std::string path_;
    const int inotify_;
};

}  // namespace Bench
