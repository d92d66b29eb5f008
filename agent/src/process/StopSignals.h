#pragma once

#include <sdk/files/FileDescriptor.h>

#include <csignal>

namespace Agent {

/// Blocks the stop signals (SIGTERM, SIGINT, SIGHUP) in all threads that start later, so that the
/// main thread can wait for them. Ignores SIGPIPE. Main thread only, before any other thread.
class StopSignals {
  public:
    StopSignals();

    /// Blocks until a signal arrives; returns its number. Further ones change nothing.
    int Wait() const;

    /// Blocks until a signal arrives or `descriptor` is readable; true for a signal, which stays
    /// pending for Wait.
    bool ArriveBefore(int descriptor) const;

  private:
    sigset_t signals_{};
    SDK::FileDescriptor pending_;  ///< a signalfd(2), readable while a signal is pending
};

}  // namespace Agent
