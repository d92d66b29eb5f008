#pragma once

#include <atomic>
#include <optional>
#include <string>

namespace Engine {

/// Starts, finds and stops the rsync daemon of a backup server. The daemon is no child of the
/// agent: its pid file is all that is known of it. `installation` is the installation path, which
/// ends in "/". Owned by SentrelUtils. Thread-safe.
class RsyncDaemon {
  public:
    /// Starts bin/rsync as a daemon with that configuration and returns when it has detached. It
    /// runs in a unit of its own where the agent's unit asks for one (DaemonUnit), and may write
    /// below `received` there. Always true: the pid file tells at the next pass whether the daemon
    /// lives.
    static bool Start(const std::string& installation, const std::string& conf_path,
                      const std::string& received);

    /// True when the file names a live process. `pid` is set whenever the file could be read; a
    /// number that no process can have counts as 0.
    static bool GetRunningPid(const std::string& pid_file, int& pid);

    /// The process that the pid file names, when it lives and its command line is that of
    /// bin/rsync as a daemon; else none.
    static std::optional<int> FindOwn(const std::string& installation);

    /// Removes a pid file that does not name our daemon. For the start of the module: after a
    /// restart of the machine the number may belong to any process, which must neither be killed
    /// nor be taken for the daemon.
    static void DropForeignPidFile(const std::string& installation);

    /// Kills the process that the pid file names and removes the file. True when nothing is left
    /// running. Blocks for up to 13 seconds; a policy callback waits outside the module's gate.
    bool Stop(const std::string& installation);

    /// Stop waits for the end of the daemon: nobody may start it now.
    bool IsStopping() const { return is_stopping_; }

  private:
    std::atomic<bool> is_stopping_{false};
};

}  // namespace Engine
