#pragma once

#include <sys/stat.h>

#include <deque>
#include <numeric>
#include <string>
#include <vector>

#include "base/Time.h"

namespace Bench {

/// A file as it should be. `path` is relative to the tree's root.
struct FileState {
    std::string path;
    off_t size = 0;
    timespec mtime{};
};

struct TreeShape {
    std::size_t directories = 1;  ///< without the root; at most 100 below a common parent
    std::size_t files_each = 10;
    std::size_t file_bytes = 4096;
};

/// Makes the tree, its files with contents that differ and times in the past. False: errno tells.
bool MakeTree(const std::string& root, const TreeShape& shape);

/// One more such file.
bool MakeFile(const std::string& path, std::size_t bytes, unsigned seed);

/// All regular files below it, sorted.
std::vector<FileState> Survey(const std::string& root);

/// cp -a of the contents; `to` is made. Hard links instead where `link`.
bool CopyTree(const std::string& from, const std::string& to);

void RemoveTree(const std::string& path);

/// Overwrites up to the first 4 KiB in one write, so that size and place stay and the content
/// differs from call to call. Gives the time right before the write.
Clock::time_point Tamper(const std::string& path);

/// True when the path is there with that size and time, which a guard's rsync sets last.
bool IsBack(const std::string& path, const FileState& file);

bool SameContent(const std::string& one, const std::string& other);

/// Files that are still to come back. Watching them must not take the time of what is measured: it
/// asks for the first of them until that is back, then for the next, and only now and then for all.
class Outstanding {
  public:
    Outstanding(std::string root, const std::vector<FileState>& files)
        : root_(std::move(root)), files_(&files), left_(files.size()) {
        std::iota(left_.begin(), left_.end(), std::size_t{0});
    }

    /// How many are not known to be back; 0 as soon as all are.
    std::size_t Look();

    /// Until all are back or the deadline has passed: how many are left. Throws Stopped.
    std::size_t Wait(milliseconds deadline, microseconds step);

  private:
    const std::string root_;
    static constexpr milliseconds kSweepEvery{2000};

    const std::vector<FileState>* files_;
    std::deque<std::size_t> left_;
    Clock::time_point sweep_at_ = Clock::now() + kSweepEvery;
};

}  // namespace Bench
