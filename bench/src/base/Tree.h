#pragma once

#include <sys/stat.h>

#include <deque>
#include <numeric>
#include <string>
#include <vector>

#include "base/Time.h"

namespace Bench {

/// The expected state of a file. `path` is relative to the tree's root.
struct FileState {
    std::string path;
    off_t size = 0;
    timespec mtime{};
};

struct TreeShape {
    std::size_t directories = 1;  ///< without the root; at most 100 per parent
    std::size_t files_each = 10;
    std::size_t file_bytes = 4096;
};

/// Makes the tree; its files have different contents and times in the past. False with errno.
bool MakeTree(const std::string& root, const TreeShape& shape);

/// Makes one such file.
bool MakeFile(const std::string& path, std::size_t bytes, unsigned seed);

/// All regular files below `root`, sorted.
std::vector<FileState> ScanTree(const std::string& root);

/// Makes `to` and copies the content of `from` with cp -a.
bool CopyTree(const std::string& from, const std::string& to);

void RemoveTree(const std::string& path);

/// Overwrites up to the first 4 KiB in one write. The size stays; the content differs for each
/// call. Returns the time immediately before the write.
Clock::time_point Tamper(const std::string& path);

/// True when the file has that size and time. rsync sets the time last.
bool IsRestored(const std::string& path, const FileState& file);

bool SameContent(const std::string& one, const std::string& other);

/// The files that are not restored yet. To take little processor time it checks the first of them
/// until that is restored, then the next one, and rarely all.
class Outstanding {
  public:
    Outstanding(std::string root, const std::vector<FileState>& files)
        : root_(std::move(root)), files_(&files), left_(files.size()) {
        std::iota(left_.begin(), left_.end(), std::size_t{0});
    }

    /// The number of files not known to be restored; 0 as soon as all are.
    std::size_t Look();

    /// Waits until all are restored or the deadline has passed; the number left. Throws
    /// Interrupted.
    std::size_t Wait(milliseconds deadline, microseconds step);

  private:
    const std::string root_;
    static constexpr milliseconds kSweepEvery{2000};

    const std::vector<FileState>* files_;
    std::deque<std::size_t> left_;
    Clock::time_point sweep_at_ = Clock::now() + kSweepEvery;
};

}  // namespace Bench
