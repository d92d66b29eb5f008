#pragma once

namespace SDK {

/// Examines processes. Stateless and thread-safe.
class ProcessUtils {
  public:
    /// True when a process with that id exists, also one of another user. False for a zombie.
    static bool IsProcessAlive(unsigned int pid);
};

}  // namespace SDK
