#pragma once

#include <chrono>

namespace Engine {

/// The kernel's limit of inotify watches. Stateless; thread-safe.
class WatchLimit {
  public:
    /// A sudo or sysctl that takes longer is ended.
    static constexpr std::chrono::seconds kPeriod{10};

    /// Raises the limit for good: adds a line to /etc/sysctl.conf each time. False when that fails
    /// or takes longer than `period`; the command is then killed.
    static bool Raise(std::chrono::milliseconds period);
};

}  // namespace Engine
