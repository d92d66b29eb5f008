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
};

/// The policy document, indented; empty when the rsync executable cannot be read.
std::string MakePolicy(const PolicyRequest& request);

}  // namespace Demo
