#pragma once

#include <climits>
#include <string>

#include "sdk/files/ExclusionFilter.h"

namespace SDK {

/// The path of `name` in the directory `below`, both relative to a tree's root ("": the root).
inline std::string JoinPath(const std::string& below, const std::string& name) {
    return below.empty() ? name : below + "/" + name;
}

/// Whether `filter` excludes `name` in the directory `below`; see ExclusionFilter.
inline bool IsExcluded(const ExclusionFilter& filter, const std::string& below,
                       const std::string& name, bool is_directory) {
    if (!filter) return false;
    const std::string path = JoinPath(below, name);
    return path.size() < PATH_MAX && filter(path, is_directory);
}

}  // namespace SDK
