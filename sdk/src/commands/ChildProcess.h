#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "sdk/commands/CommandLimits.h"
#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// One external command: its process, the session and group that it leads, and the pipe with its
/// output. Killed with its group and reaped with the object when it has not been reaped before. One
/// thread.
class ChildProcess {
  public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Starts `arguments[0]` with exactly this environment and, as its descriptors 3, 4, ..., with
    /// `inherited`, which stay the caller's. False (errno) when it cannot be.
    bool Start(const std::vector<std::string>& arguments,
               const std::vector<std::string>& environment,
               const std::vector<FileDescriptor>& inherited);

    /// Holds the process to `limits` from now on, also to what it has taken since its start. False
    /// (errno) when that cannot be done or it has taken too much: it is then to be killed.
    bool Limit(const CommandLimits& limits) const;

    /// Readable once the process has ended; -1 when the kernel had no descriptor for it.
    int EndDescriptor() const { return end_.Get(); }

    /// Output and errors of the process and what it starts; does not block.
    int OutputDescriptor() const { return output_.Get(); }

    /// The number of the process and its group; it may be another's after Reap.
    pid_t Group() const { return pid_; }

    /// Kills the whole group; only before Reap, as the number is the process's own until then.
    void Kill();

    /// Waits for the end; the status as waitpid(2) gives it, or -1.
    int Reap();

  private:
    pid_t pid_ = -1;
    FileDescriptor end_;
    FileDescriptor output_;
};

}  // namespace SDK
