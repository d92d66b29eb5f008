#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/types.h>

#include <string>

namespace Agent {

/// Starts the sentry as a child where no service manager does: only an agent that has
/// CAP_SYS_ADMIN itself can, and under systemd it has not. Not thread-safe.
class SentryStarter {
  public:
    SentryStarter() = default;
    /// Ends the child.
    ~SentryStarter();
    SentryStarter(const SentryStarter&) = delete;
    SentryStarter& operator=(const SentryStarter&) = delete;

    /// This process may do what the sentry needs.
    static bool MayStart();

    /// Starts it unless it runs. Why not, in words; else empty.
    std::string Start();

  private:
    bool IsRunning();

    pid_t child_ = -1;
};

}  // namespace Agent
