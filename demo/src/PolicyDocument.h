#pragma once

#include <string>
#include <vector>

namespace Demo {

/// What a protection policy for one tree, and perhaps one file, needs to know.
struct PolicyRequest {
    std::string tree;
    std::string file;    ///< empty: none
    std::string backup;  ///< folder of the backup copies, without a trailing "/"
    std::string rsync;   ///< the executable that the agent is to take, by a file: URL
    std::vector<std::string> excluded_subdirs;
    std::vector<std::string> excluded_suffixes;
    bool auto_restore = true;
    std::string push_address;  ///< the backup server that gets a copy of the copies; empty: none
    int push_port = 0;
};

/// What a backup server's policy needs to know.
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
