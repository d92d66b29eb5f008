#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/types.h>

#include <string>

#include "base/SharedState.h"

namespace Sentry {

/// Looks after the guard, a child of this process. It holds no fanotify group, so it can be blocked
/// by an open as any process can, but never keeps others blocked: it kills a guard that does not
/// answer the open of a probe file in time, and the kernel then lets all openers go on. One use.
class Watchdog {
  public:
    enum class End {
        kStopped,  ///< the signal to stop came; the guard has ended
        kDied,     ///< the guard ended by itself
        kKilled,   ///< it did not answer
    };

    /// Borrows `state`. `guard` is a child of the caller that nobody else waits for.
    Watchdog(pid_t guard, const SharedState& state, std::string probe_file);

    /// Returns when the guard has ended and is reaped. `signals` is a signalfd(2).
    End Run(int signals);

    /// What waitpid(2) told of the guard.
    int Status() const { return status_; }

  private:
    void Reap();

    const pid_t guard_;
    const SharedState& state_;
    const std::string probe_file_;
    SDK::FileDescriptor ended_;  ///< readable when the guard has ended
    int status_ = 0;
};

}  // namespace Sentry
