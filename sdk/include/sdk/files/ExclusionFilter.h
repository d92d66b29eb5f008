#pragma once

#include <functional>
#include <string>

namespace SDK {

/// Decides which objects operations on a tree leave alone: true for the object at `below`, a path
/// relative to the tree's root, without "/" at either end. An empty filter excludes nothing. It is
/// not asked about paths of PATH_MAX bytes or more; those are not excluded.
using ExclusionFilter = std::function<bool(const std::string& below, bool is_directory)>;

}  // namespace SDK
