#pragma once

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

  private:
    sigset_t signals_{};
};

}  // namespace Agent
