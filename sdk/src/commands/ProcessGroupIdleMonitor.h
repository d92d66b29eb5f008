#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>

namespace SDK {

/// Looks from time to time whether a command's processes still do anything. One thread.
class ProcessGroupIdleMonitor {
  public:
    /// Watches the process group `group`, whose number must stay its own, by the calling thread's
    /// CommandIdleLimit; without one it never does anything.
    explicit ProcessGroupIdleMonitor(pid_t group);

    /// Milliseconds to the next call of Look, or `other` when that is sooner; -1 is any time.
    int Until(int other) const;

    /// Looks when it is time, and asks a group that has done nothing since the last look to end
    /// (SIGTERM). False: it was asked a second ago and is still there.
    bool Look();

    bool HasAsked() const { return has_asked_; }

  private:
    using Clock = std::chrono::steady_clock;
    /// How often each thread of a process gave up its processor; by its number.
    using Activity = std::map<pid_t, std::uint64_t>;

    /// Empty when a process does something at this moment, or when nothing can be told.
    Activity Observe() const;

    const pid_t group_;
    const std::chrono::milliseconds period_;
    Clock::time_point next_look_;
    Activity last_;
    bool has_asked_ = false;
};

}  // namespace SDK
