#pragma once

#include <chrono>

namespace SDK {

enum class CommandLimitKind { kTime, kIdle };

/// A limit for the external commands that the thread which made the object starts while it lives.
/// An inner object hides an outer one; a period of zero lifts the limit. Not thread-safe: create
/// and destroy it on the same thread.
template <CommandLimitKind kind>
class CommandLimit {
  public:
    explicit CommandLimit(std::chrono::milliseconds period);
    ~CommandLimit();
    CommandLimit(const CommandLimit&) = delete;
    CommandLimit& operator=(const CommandLimit&) = delete;

    /// The calling thread's period; zero without a limit.
    static std::chrono::milliseconds Current();

  private:
    std::chrono::milliseconds previous_;
};

/// Limits the run time of commands that have no limit of their own. After `period` such a command
/// is killed with its process group; its result is kTimedOut.
using CommandTimeLimit = CommandLimit<CommandLimitKind::kTime>;

/// Limits the time without activity. A command is idle when none of its processes has run, or
/// waited for a disk, between two checks `period` apart. It gets SIGTERM, a second later its
/// process group is killed; its result is kTimedOut. A process that only waits for another host is
/// idle.
using CommandIdleLimit = CommandLimit<CommandLimitKind::kIdle>;

extern template class CommandLimit<CommandLimitKind::kTime>;
extern template class CommandLimit<CommandLimitKind::kIdle>;

}  // namespace SDK
