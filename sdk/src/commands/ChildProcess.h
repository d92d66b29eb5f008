#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "sdk/commands/CommandLimits.h"
#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// One external command: its process, session and process group, and the pipe with its output. The
/// destructor kills the group and reaps the process unless Reap was called. Not thread-safe.
class ChildProcess {
  public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Starts `arguments[0]` with exactly this environment and with duplicates of `inherited` as
    /// its descriptors 3, 4, ... `input` becomes its standard input; -1: /dev/null. False (errno)
    /// when it cannot start.
    bool Start(const std::vector<std::string>& arguments,
               const std::vector<std::string>& environment,
               const std::vector<FileDescriptor>& inherited, int input);

    /// Limits the process from now on, and checks what it has used since its start. False (errno)
    /// when that fails or it has used too much: the caller must kill it.
    bool Limit(const CommandLimits& limits) const;

    /// Readable once the process has ended; -1 when the kernel gave no descriptor.
    int EndDescriptor() const { return end_.Get(); }

    /// Standard output and error of the process and its children; does not block.
    int OutputDescriptor() const { return output_.Get(); }

    /// The id of the process and its group; another process may get it after Reap.
    pid_t Group() const { return pid_; }

    /// Kills the whole group. Only before Reap: until then the id belongs to this process.
    void Kill();

    /// Blocks until the process ends; its status as of waitpid(2), or -1.
    int Reap();

  private:
    pid_t pid_ = -1;
    FileDescriptor end_;
    FileDescriptor output_;
};

}  // namespace SDK
