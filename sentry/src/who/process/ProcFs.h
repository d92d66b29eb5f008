#pragma once

#include <string>
#include <vector>

#include "who/process/Process.h"

namespace Sentry {

/// Reads processes from /proc. Stateless and thread-safe; opens nothing below a protected path.
class ProcFs {
  public:
    /// What /proc says of a process. `parent` is its parent's number. Null when it has ended.
    struct Found {
        std::shared_ptr<Process> process;  ///< without parents
        pid_t parent = 0;
    };
    static Found Read(pid_t pid);

    /// False when the process has ended.
    static bool ReadUser(pid_t pid, User& user);

    /// The start of a process as in Process; 0 when it has ended.
    static std::uint64_t StartOf(pid_t pid);

    /// The path of its control group; empty when the process has ended.
    static std::string CgroupOf(pid_t pid);

    static std::vector<pid_t> All();

    /// Pids of events and of /proc mean the same: this is the first namespace of pids.
    static bool IsFirstNamespace();
};

}  // namespace Sentry
