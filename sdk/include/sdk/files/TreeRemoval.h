#pragma once

#include <functional>
#include <string>

namespace SDK {

/// Called right before the object `name` in the open directory `directory`, which is no directory
/// itself, is removed. `below` is its path from the removed tree's root, without a leading "/".
using RemovalVisitor =
    std::function<void(int directory, const std::string& name, const std::string& below)>;

/// As DirUtils::DeleteAt, and calls `visit` for all that lies in a directory. Not thread-safe for
/// one tree.
int RemoveTreeAt(int directory, const std::string& name, const RemovalVisitor& visit);

}  // namespace SDK
