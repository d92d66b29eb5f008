#pragma once

namespace SDK {

/// Looks at processes. Stateless; any thread.
class ProcessUtils {
  public:
    /// True when a process with that id exists, also one of another user; a zombie is not alive.
    static bool IsProcessAlive(unsigned int pid);
};

}  // namespace SDK
