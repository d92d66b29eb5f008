#pragma once

#include <chrono>
#include <list>
#include <string>

namespace Engine {

/// Direction of a local copy.
enum rsync_mode : int {
    RSYNC_BACKUP = 0,   ///< the protected path into the backup directory, full path kept below it
    RSYNC_RESTORE = 1,  ///< the backup copy back over the protected path
};

/// How a copy by rsync ended.
struct CopyResult {
    bool is_done = false;
    std::string error = {};  ///< why not, in words; empty when it is done
};

/// Builds and runs the rsync commands. Each call blocks until rsync has ended. Paths must be
/// absolute; they stand on the logged command line as they are, and rsync gets each as one word.
/// Stateless; thread-safe.
class RsyncCopies {
  public:
    /// A local rsync of which no process has done anything for this long is held up by something
    /// that it opened, and is ended.
    static constexpr std::chrono::seconds kIdlePeriod{15};

    /// Copies `src` into the backup directory `dst`, or its backup copy below `dst` back.
    static CopyResult CopyLocally(const std::string& src, const std::string& dst,
                                  const std::list<std::string>& ignored_postfix,
                                  const std::list<std::string>& ignored_subdir, rsync_mode mode,
                                  std::chrono::milliseconds idle_period);

    /// Pushes `src` to the backup server at `address`. `port` 0 leaves the port to rsync.
    static CopyResult Push(const std::string& src, const std::string& address, int port);
};

}  // namespace Engine
