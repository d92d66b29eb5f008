#pragma once

#include <framework/TaskCondition.h>
#include <framework/TaskStatus.h>

#include <chrono>
#include <cstdint>
#include <mutex>

namespace Framework {

/// What is known of a registration's life for the status, and whether its present pass has
/// stalled. Written by the task's thread, read by any.
class PassMonitor {
  public:
    void InitEnded(bool ok);

    /// `stall_limit`: negative when none is in force.
    void PassBegins(std::chrono::seconds stall_limit);
    void PassEnds();

    /// True once per pass: when it has first been found to last longer than its limit.
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
