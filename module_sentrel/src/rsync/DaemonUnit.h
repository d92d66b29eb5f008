#pragma once

#include <string>
#include <vector>

namespace Engine {

/// The systemd unit in which the rsync daemon of a backup server runs, when the agent's own unit
/// asks for one. It is transient, because only a policy says where the daemon may write. Not
/// thread-safe with changes of the environment.
class DaemonUnit {
  public:
    /// The environment variable by which the agent's unit names the daemon's unit.
    static constexpr const char* kVariable = "MORVANE_RSYNCD_UNIT";

    /// Empty: the daemon has no unit and is started as a process of the agent's unit.
    static std::string ConfiguredName();

    /// What the unit consists of; all paths are absolute.
    struct Request {
        std::string name;                   ///< such as "morvane-rsyncd.service"
        std::string owner;                  ///< the agent's unit, with which it ends; or empty
        std::string pid_file;               ///< written by the daemon
        std::vector<std::string> writable;  ///< one that does not exist is left out
        std::vector<std::string> daemon;    ///< program and arguments; it detaches itself
    };

    /// The words of the command that starts the unit and returns when the daemon has detached.
    static std::vector<std::string> StartCommand(const Request& request);

    /// The service that this process belongs to; empty when it belongs to none.
    static std::string OwnService();
};

}  // namespace Engine
