#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "base/Time.h"

namespace Bench {

/// A program to start. An empty name of a standard stream means /dev/null.
struct Command {
    std::vector<std::string> arguments;    ///< the program's path first
    std::vector<std::string> environment;  ///< complete, "NAME=value"
    std::string input;
    std::string output;
    std::string error;
};

/// A child process in a process group of its own. The destructor ends it. Not thread-safe.
class Child {
  public:
    Child() = default;
    Child(Child&& other) noexcept;
    Child& operator=(Child&& other) noexcept;
    ~Child() { Stop(milliseconds(0)); }

    /// Uses posix_spawn, so that the driver's memory is not copied. On failure Pid() is -1.
    static Child Start(const Command& command);

    pid_t Pid() const { return pid_; }

    /// The exit code, or 128 + signal; none while the process runs.
    std::optional<int> Ended();

    /// Waits for the exit code; none after the deadline. Throws Interrupted.
    std::optional<int> Wait(milliseconds deadline);

    /// Sends a signal to the process, or with `group` to its process group.
    void Signal(int number, bool group = false) const;

    /// Sends SIGTERM to the process, SIGKILL to the group after `grace`, and reaps. False: killed.
    bool Stop(milliseconds grace);

  private:
    pid_t pid_ = -1;
    std::optional<int> ended_;
};

/// Runs a command to its end. The exit code; none when it was killed at the deadline.
std::optional<int> Run(const Command& command, milliseconds deadline = std::chrono::minutes(10));

/// Figures of a running process with all its threads; 0 when it has ended.
std::size_t ResidentBytes(pid_t pid);
std::size_t PeakBytes(pid_t pid);  ///< the maximum so far
std::chrono::nanoseconds ProcessorTime(pid_t pid);

/// The process and its living descendants.
std::vector<pid_t> ProcessTree(pid_t pid);

/// Unread bytes in the process's inotify queues; -1 when it has no inotify descriptor.
long WaitingEventBytes(pid_t pid);

}  // namespace Bench
