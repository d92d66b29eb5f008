#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Sentry {

/// A time of CLOCK_MONOTONIC.
using Nanoseconds = std::int64_t;

constexpr Nanoseconds kSecond = 1'000'000'000;
constexpr std::uint32_t kUnset = UINT32_MAX;  ///< of a login user or session

/// When a change was made, as far as that is known.
struct Moment {
    Nanoseconds earliest = 0;
    Nanoseconds latest = 0;
    /// Between these two nothing was taken from the queue of changes, in which `ahead` were ahead
    /// of this one.
    Nanoseconds quiet_from = 0;
    Nanoseconds quiet_until = 0;
    std::uint32_t ahead = 0;
};

/// What a process runs.
struct Program {
    std::string exe;      ///< the name of a kernel thread in brackets
    std::string cmdline;  ///< without secrets
};
using ProgramPtr = std::shared_ptr<const Program>;

struct Ancestor {
    pid_t pid = 0;
    ProgramPtr program;  ///< when it forked
};

struct User {
    uid_t uid = kUnset;
    uid_t euid = kUnset;
    bool operator==(const User& other) const { return uid == other.uid && euid == other.euid; }
};

/// A process while it runs one program as one user. Immutable once shared.
struct Process {
    pid_t pid = 0;
    std::uint64_t start = 0;  ///< since the boot, in hundredths of a second: as /proc/PID/stat
    ProgramPtr program;
    User user;
    uid_t login = kUnset;
    std::uint32_t session = kUnset;
    std::string cgroup;
    std::vector<Ancestor> parents;  ///< the nearest first, without process 1
    bool is_own = false;            ///< the agent, a descendant of it, or the sentry

    bool IsSame(const Process& other) const { return pid == other.pid && start == other.start; }
};
using ProcessPtr = std::shared_ptr<const Process>;

constexpr std::size_t kMostParents = 8;

}  // namespace Sentry
