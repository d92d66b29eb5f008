#pragma once

#include <sdk/files/FileDescriptor.h>

#include <csignal>

namespace Agent {

/// Takes the signals that ask the agent to stop (SIGTERM, SIGINT, SIGHUP) away from all threads
/// that are started later, so that the main thread can wait for them. SIGPIPE is ignored. Main
/// thread, before any other thread.
class StopSignals {
  public:
    StopSignals();

    /// Blocks until one has come; its number. Further ones change nothing.
    int Wait() const;

    /// Blocks until one has come or `descriptor` is readable; true for the former. The signal is
    /// still there for Wait.
    bool HaveComeBefore(int descriptor) const;

  private:
    sigset_t signals_{};
    SDK::FileDescriptor pending_;  ///< a signalfd(2), readable while one has come
};

}  // namespace Agent
