#pragma once

#include <string>

#include "ctl/client/ControlClient.h"

namespace Ctl {

struct ShieldOptions {
    std::string path;  ///< empty: list all
    std::string mode;
    bool json = false;
};

/// Sets the mode of the shield of one protected directory, if `path` is given, and lists all.
/// Returns the exit code.
int ShieldPath(const ControlClient& client, const ShieldOptions& options);

}  // namespace Ctl
