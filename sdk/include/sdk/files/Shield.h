#pragma once

#include <functional>
#include <string>

namespace SDK {

/// Says what operations on a tree leave alone: true for the object at `below`, relative to the
/// tree's root, without "/" at either end. Never asked about a path of PATH_MAX bytes or more,
/// which no site uses: nothing shields these.
using Shield = std::function<bool(const std::string& below, bool is_directory)>;

}  // namespace SDK
