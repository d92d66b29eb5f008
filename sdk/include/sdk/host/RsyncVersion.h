#pragma once

#include <string>

namespace SDK {

/// The version that `rsync --version` prints in its first line, such as "3.5.0"; empty when there
/// is none.
std::string RsyncVersionFromText(const std::string& text);

/// True for versions that write and delete through a symbolic link that somebody put in place of a
/// directory.
bool FollowsPlantedLinks(const std::string& version);

}  // namespace SDK
