#pragma once

#include <string>

namespace Ctl {

/// Where this host pushes its backup copies.
struct BackupServer {
    std::string address;  ///< as the policy names it; empty: nowhere
    int port = 0;         ///< 0: rsync's usual one
    std::string agent_id;

    explicit operator bool() const { return !address.empty(); }
};

/// What the kept policy and the installation say. Reads the disk; asks no agent.
BackupServer KnownBackupServer();

}  // namespace Ctl
