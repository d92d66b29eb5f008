#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "who/process/ProcessTable.h"

namespace Sentry {

/// The kernel's events of processes, by BPF programs at its tracepoints. Not thread-safe.
class ProcessEvents {
  public:
    /// A process woke the thread that waits for changes: it has just changed an object.
    struct Wake {
        pid_t pid = 0;
        User user = {};
        Nanoseconds at = 0;
    };

    /// Loads the programs, which work until the destructor. `reader` is the thread that waits for
    /// changes, which it reads from the group `changes`. Borrows `table`. Check Problem(): then the
    /// object does nothing.
    ProcessEvents(ProcessTable& table, pid_t reader, int changes);
    ~ProcessEvents();
    ProcessEvents(const ProcessEvents&) = delete;
    ProcessEvents& operator=(const ProcessEvents&) = delete;

    /// Why there are no events; empty when there are.
    const std::string& Problem() const { return problem_; }

    /// Readable when events should be read soon; -1 without events.
    int Descriptor() const;

    /// Hands the waiting events to the table.
    void Read();

    /// The wake by that process in that time. Forgets earlier ones.
    std::optional<Wake> TakeWake(pid_t pid, Nanoseconds earliest, Nanoseconds latest);

    /// Events that were dropped because too many waited.
    std::uint64_t Lost() const { return lost_; }

  private:
    class Programs;

    static int Take(void* self, void* data, std::size_t size);
    void Take(const void* data, std::size_t size);
    const std::string& CgroupOf(std::uint64_t id, pid_t pid);

    ProcessTable& table_;
    std::string problem_;
    std::unique_ptr<Programs> programs_;
    std::unordered_map<std::uint64_t, std::string> cgroups_;
    std::deque<Wake> wakes_;
    std::uint64_t lost_ = 0;
};

}  // namespace Sentry
