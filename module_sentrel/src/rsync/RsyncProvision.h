#pragma once

#include <sys/stat.h>

#include <mutex>
#include <string>

#include "rsync/InstalledRsync.h"

namespace Engine {

/// Makes sure that bin/rsync is the file that the policy names, and remembers what it installed.
/// Owned by SentrelUtils. Thread-safe: the tasks ask at about the same time.
class RsyncProvision {
  public:
    /// Downloads `url`, whose digest must be `hash`, unless bin/rsync is that file already. Blocks
    /// for as long as the download takes; a second caller waits for the first. False when the
    /// download failed (the old file then stays) or the installed file cannot be examined.
    bool Provide(const std::string& url, const std::string& hash);

    InstalledRsync& Installed() { return installed_; }

  private:
    bool Fetch(const std::string& url, const std::string& hash);
    bool IsRemembered(const struct stat& info) const;
    bool Remember(const std::string& path);

    InstalledRsync installed_;
    std::mutex mutex_;  ///< held while bin/rsync is provided; guards all below
    bool is_usable_ = true;
    struct stat remembered_ {};  ///< bin/rsync right after the last successful download
};

}  // namespace Engine
