#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ctl/client/ControlClient.h"

namespace Ctl {

/// How differences are listed.
struct ListingOptions {
    static constexpr std::size_t kDefaultLimit = 100;
    std::size_t limit = kDefaultLimit;  ///< lines; 0: all
    bool json = false;
};

struct VerifyOptions {
    std::vector<std::string> paths;  ///< empty: all that is protected
    bool full = false;
    bool copies = false;
    ListingOptions listing;
};

/// The commands on approved states. Each prints its result to standard output and errors to
/// standard error, and returns the exit code.

/// Compares the site, or the copies, with the newest approved state. Needs no agent.
int Verify(const VerifyOptions& options);

}  // namespace Ctl
