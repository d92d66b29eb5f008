#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace Ctl {

/// How far a long comparison is.
struct ComparisonProgress {
    std::size_t done = 0;  ///< objects
    std::size_t total = 0;
    std::uint64_t bytes = 0;
};

/// One line without a line end, at most `columns` wide: a bar, count, rates and the time left; the
/// bar is left out with `columns` 0.
std::string FormatProgress(const ComparisonProgress& progress, double seconds, int columns);

/// Shows on standard error how far a command is while it lives: on a terminal a bar that disappears
/// at the end, elsewhere a line every ten seconds.
class ProgressDisplay {
  public:
    /// `progress` is called on a thread of this object.
    explicit ProgressDisplay(std::function<ComparisonProgress()> progress);
    ~ProgressDisplay();
    ProgressDisplay(const ProgressDisplay&) = delete;
    ProgressDisplay& operator=(const ProgressDisplay&) = delete;

  private:
    void Show();

    const std::function<ComparisonProgress()> progress_;
    const bool is_terminal_;
    std::mutex mutex_;
    std::condition_variable ended_;
    bool has_ended_ = false;  ///< guarded by mutex_
    std::thread thread_;
};

}  // namespace Ctl
