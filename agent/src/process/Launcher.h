#pragma once

#include <sdk/files/FileDescriptor.h>

#include <string>

namespace Agent {

/// Tells whoever started the agent how the start went: the terminal, or, for a daemon, the
/// program that waits for it in the foreground. Main thread.
class Launcher {
  public:
    /// Makes the calling process a daemon, when no thread runs yet: returns in the daemon only.
    /// The process that was started waits until the daemon has reported or ended, prints what it
    /// said, and exits with its code.
    void Daemonize();

    /// A remark that does not end the start.
    void Warn(const std::string& text);

    /// The agent is ready. A daemon lets go of the terminal here.
    void Ready(const std::string& text);

    /// The start failed; `exit_code` is returned for the caller to exit with.
    int Failed(int exit_code, const std::string& text);

  private:
    SDK::FileDescriptor report_;  ///< open while a process waits for this daemon
};

}  // namespace Agent
