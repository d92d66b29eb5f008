#pragma once

#include <string>

namespace Engine {

/// Where the module's rsync, its daemon and their passwords lie. `installation` is an installation
/// path that ends in "/". Stateless; thread-safe.
struct RsyncPaths {
    static std::string Program(const std::string& installation) {
        return installation + "bin/rsync";
    }
    static std::string DaemonPidFile(const std::string& installation) {
        return installation + "bin/morvane_rsyncd.pid";
    }
    static std::string DaemonConf(const std::string& installation) {
        return installation + "conf/morvane_rsync.conf";
    }
    /// `log_directory` has no trailing "/".
    static std::string DaemonLog(const std::string& log_directory) {
        return log_directory + "/morvane_rsync.log";
    }
    /// The password of `role`, which is "client" or "server".
    static std::string Secrets(const std::string& installation, const std::string& role) {
        return installation + "conf/rsync_" + role + ".secrets";
    }
};

}  // namespace Engine
