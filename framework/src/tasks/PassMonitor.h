#pragma once

#include <framework/TaskCondition.h>
#include <framework/TaskStatus.h>

#include <chrono>
#include <cstdint>
#include <mutex>

namespace Framework {

/// The state of one registration for the status, and whether its current pass has stalled.
/// Thread-safe: the task's thread writes, others read.
class PassMonitor {
  public:
    void InitEnded(bool ok);

    /// `stall_limit`: negative for no limit.
    void PassBegins(std::chrono::seconds stall_limit);
    void PassEnds();

    /// True once per pass: at the first check that finds it longer than its limit.
    bool HasNewlyStalled();

    void Fill(TaskStatus& status) const;

  private:
    using Clock = std::chrono::steady_clock;

    mutable std::mutex mutex_;
    bool started_ = false;
    bool init_failed_ = false;
    bool in_pass_ = false;
    bool stalled_ = false;
    std::chrono::seconds stall_limit_{-1};
    Clock::time_point pass_began_;
    std::uint64_t passes_ = 0;
    double last_pass_ms_ = 0;
};

}  // namespace Framework
