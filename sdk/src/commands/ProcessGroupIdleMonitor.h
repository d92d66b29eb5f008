#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>

namespace SDK {

/// Checks periodically whether a command's processes are idle. Not thread-safe.
class ProcessGroupIdleMonitor {
  public:
    /// Monitors the process group `group`, which must not be reaped meanwhile, by the calling
    /// thread's CommandIdleLimit; without a limit it does nothing.
    explicit ProcessGroupIdleMonitor(pid_t group);

    /// Milliseconds until the next call of Check, or `other` when that is sooner; -1 means no
    /// limit.
    int PollTimeout(int other) const;

    /// Checks when it is due, and sends SIGTERM to a group that was idle since the last check.
    /// False when a group that got SIGTERM a second ago still runs.
    bool Check();

    bool HasTerminated() const { return has_terminated_; }

  private:
    using Clock = std::chrono::steady_clock;
    /// Voluntary context switches of each thread, by its id.
    using Activity = std::map<pid_t, std::uint64_t>;

    /// Empty when a process is active at this moment, or the state is unknown.
    Activity Observe() const;

    const pid_t group_;
    const std::chrono::milliseconds period_;
    Clock::time_point next_check_;
    Activity last_;
    bool has_terminated_ = false;
};

}  // namespace SDK
