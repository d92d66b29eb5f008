#pragma once

#include <framework/QueryRegistry.h>
#include <sys/types.h>

#include <string>

#include "control/Reply.h"

namespace Agent {

/// The process at the other end of a connection, as the kernel names it.
struct Peer {
    uid_t user = static_cast<uid_t>(-1);  ///< -1: not known
    pid_t process = 0;                    ///< 0: not known
};

/// Hands an operator's decisions on approved states to the module that carries them out, and tells
/// how far it is. Never waits for the work. Thread-safe.
class BaselineRequests {
  public:
    /// Borrows `queries`.
    explicit BaselineRequests(Framework::QueryRegistry& queries) : queries_(queries) {}

    /// True for "accept", "restore" and "rollback".
    static bool IsAction(const std::string& action);

    /// `text` is {"paths": [absolute path, percent-encoded], "all": bool}; of a rollback also
    /// "generation" (a number) and "dry_run" (bool), and without paths it is about all.
    /// 202 with {"id"}; 400 for another form; 422 when the module refuses.
    Reply Submit(const std::string& action, const Peer& peer, const std::string& text);

    /// Hands the module the private key, a PEM text, for the next decision or policy, and forgets
    /// it. 200 with {}; 422 when the module does not take it.
    Reply Lend(const std::string& pem);

    /// The state of the request `id`, a decimal number; 404 when there is none.
    Reply Progress(const std::string& id);

    /// An operation on deploys, pauses or notifications. `text` is an object that the module knows,
    /// to which the action and the peer are added. 200 with the module's answer; 400 for another
    /// form; 422 when the module refuses.
    Reply Operate(const std::string& query, const std::string& action, const Peer& peer,
                  const std::string& text);

  private:
    Framework::QueryRegistry& queries_;
};

}  // namespace Agent
