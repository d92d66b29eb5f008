#pragma once

#include <string>
#include <vector>

#include "ctl/client/ControlClient.h"

namespace Ctl {

struct ProtectOptions {
    std::string path;
    std::string backup = {};  ///< empty: the default place
    std::vector<std::string> excluded = {};
    std::vector<std::string> suffixes = {};
    bool report_only = false;
    bool dry_run = false;
    bool yes = false;
    std::string key = {};  ///< the file of the private key where it is kept elsewhere
};

struct UnprotectOptions {
    std::string path;
    bool yes = false;
    std::string key = {};
};

/// Adds a path to the protection policy, applies it and waits until the path is watched and copied.
int Protect(const ControlClient& client, const ProtectOptions& options);

/// Takes a path out of the protection policy. Its copies stay.
int Unprotect(const ControlClient& client, const UnprotectOptions& options);

}  // namespace Ctl
