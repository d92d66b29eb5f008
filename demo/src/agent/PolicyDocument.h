#pragma once

#include <string>
#include <vector>

namespace Demo {

/// The contents of a protection policy for one tree and optionally one file.
struct PolicyRequest {
    std::string tree;
    std::string file;    ///< empty: none
    std::string backup;  ///< folder of the backup copies, without a trailing "/"
    std::string rsync;   ///< the executable that the agent uses, by a file: URL
    std::vector<std::string> excluded_subdirs;
    std::vector<std::string> excluded_suffixes;
    bool auto_restore = true;
    std::string push_address;  ///< backup server for a copy of the copies; empty: none
    int push_port = 0;
};

/// The contents of a backup server's policy.
struct ServerPolicyRequest {
    std::string address;
    int port = 0;
    std::string path;   ///< the folder that receives the copies
    std::string rsync;  ///< as above
};

/// The policy document, indented; empty when the rsync executable cannot be read.
std::string MakePolicy(const PolicyRequest& request);
std::string MakeServerPolicy(const ServerPolicyRequest& request);

}  // namespace Demo
