#pragma once

#include <sdk/files/FileDescriptor.h>

#include <string>

namespace Agent {

/// Reports the outcome of the start to the terminal or, for a daemon, to the program that waits for
/// it in the foreground. Main thread only.
class StartupReporter {
  public:
    /// Turns the calling process into a daemon and returns in the daemon only. Call it before any
    /// thread starts. The original process waits until the daemon reports or ends, prints the
    /// report, and exits with its code.
    void Daemonize();

    /// Prints a warning; the start continues.
    void Warn(const std::string& text);

    /// The agent is ready. A daemon detaches from the terminal here.
    void Ready(const std::string& text);

    /// The start failed. Returns `exit_code` for the caller to exit with.
    int Failed(int exit_code, const std::string& text);

  private:
    SDK::FileDescriptor report_;  ///< open while a process waits for the daemon
};

}  // namespace Agent
