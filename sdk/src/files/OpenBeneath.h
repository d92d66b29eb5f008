#pragma once

#include <string_view>

#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// What the way to an object may hold besides plain directories.
enum class MountPoints { kCrossed, kRefused };

/// Opens `path`, of any length, below `directory` with open(2)'s `flags`, "" being the directory
/// itself. Follows no link and never leaves `directory`; a mount point on the way or at the end is
/// EXDEV where they are refused. The path must not be absolute. Not open on failure (errno).
FileDescriptor OpenBeneath(int directory, std::string_view path, int flags,
                           MountPoints mount_points = MountPoints::kCrossed);

}  // namespace SDK
