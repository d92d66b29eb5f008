#pragma once

#include <json/value.h>

#include <mutex>
#include <string>

namespace Engine {

/// What is known of the installed bin/rsync: its version, whether that is safe, and whether the
/// preload library is in use. RsyncProvision owns it; tasks examine, the status query reads.
/// Thread-safe.
class InstalledRsync {
  public:
    /// Asks the executable at `path` for its version, warns once in the log when that is too old or
    /// unknown, and sets the executable up (SetUpRsync). Asks only once per installed file;
    /// `installed_anew` asks again. Blocks until the program has answered, at most 5 seconds.
    void Examine(const std::string& path, bool installed_anew);

    /// It copies POSIX ACLs within the host.
    bool KeepsAcls() const;

    /// {"version","degraded","reason","preload":{"in_use","reason"}}
    Json::Value ToJson() const;

    void Reset();

  private:
    struct Facts {
        bool known = false;
        std::string version;
        std::string degraded_reason;  ///< empty: nothing is wrong with it
        bool keeps_acls = false;
        bool has_preload = false;
        std::string no_preload_reason;
    };

    mutable std::mutex mutex_;  ///< guards facts_
    Facts facts_;
};

}  // namespace Engine
