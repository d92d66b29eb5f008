#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "base/Time.h"

namespace Bench {

/// What to start. Standard streams that name no file are /dev/null.
struct Command {
    std::vector<std::string> arguments;    ///< the program by its path first
    std::vector<std::string> environment;  ///< the whole of it, "NAME=value"
    std::string input;
    std::string output;
    std::string error;
};

/// One process of ours in a process group of its own. Ends it with the object. One thread.
class Child {
  public:
    Child() = default;
    Child(Child&& other) noexcept;
    Child& operator=(Child&& other) noexcept;
    ~Child() { Stop(milliseconds(0)); }

    /// Starts it without a copy of our memory; Pid() is -1 when that failed.
    static Child Start(const Command& command);

    pid_t Pid() const { return pid_; }

    /// Once the process has ended: its exit code, 128 + the signal that ended it.
    std::optional<int> Ended();

    /// The same, waited for; nothing when it runs on at the deadline. Throws Stopped.
    std::optional<int> Wait(milliseconds deadline);

    /// To the process, or with `group` to all of its group.
    void Signal(int number, bool group = false) const;

    /// SIGTERM to the process, SIGKILL to the group after `grace`; reaps. True: it ended in time.
    bool Stop(milliseconds grace);

  private:
    pid_t pid_ = -1;
    std::optional<int> ended_;
};

/// Runs it to its end: the exit code, nothing when it had to be killed at the deadline.
std::optional<int> Run(const Command& command, milliseconds deadline = std::chrono::minutes(10));

/// Of a process now, all of its threads. Zero when it is gone.
std::size_t ResidentBytes(pid_t pid);
std::size_t PeakBytes(pid_t pid);  ///< the most it ever had
std::chrono::nanoseconds ProcessorTime(pid_t pid);

/// The process and all that came from it, as far as they live.
std::vector<pid_t> Family(pid_t pid);

/// Bytes of events that wait in the process's inotify descriptors; -1 when it has none.
long WaitingEventBytes(pid_t pid);

}  // namespace Bench
