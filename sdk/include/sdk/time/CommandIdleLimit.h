#pragma once

#include <chrono>

namespace SDK {

/// Bounds the external commands of one thread by what they do: a command of which no process has
/// run, or waited for a disk, from one look to the next, `period` apart, is asked to end, a second
/// later killed with its group, and its result is kTimedOut. However long it takes, a command that
/// does something goes on. A process that waits for another host does nothing.
///
/// Counts for every ExecuteCmd of the thread that made it while the object lives; nests.
class CommandIdleLimit {
  public:
    explicit CommandIdleLimit(std::chrono::milliseconds period);
    ~CommandIdleLimit();
    CommandIdleLimit(const CommandIdleLimit&) = delete;
    CommandIdleLimit& operator=(const CommandIdleLimit&) = delete;

    /// The calling thread's period; zero when there is none.
    static std::chrono::milliseconds Current();

  private:
    std::chrono::milliseconds previous_;
};

}  // namespace SDK
