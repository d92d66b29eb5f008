#pragma once

#include <string>
#include <vector>

namespace Ctl {

/// One enabled entry of the kept policy.
struct WatchedPlace {
    std::string path;
    std::string backup_path;  ///< empty: none
};

/// The enabled entries of the kept policy. Reads the disk; asks no agent.
std::vector<WatchedPlace> WatchedPlaces();

}  // namespace Ctl
