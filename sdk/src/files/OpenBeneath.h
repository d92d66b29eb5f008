#pragma once

#include <string_view>

#include "sdk/files/FileDescriptor.h"
#include "sdk/files/MountPoints.h"

namespace SDK {

/// Opens `path`, of any length, below `directory` with open(2)'s `flags`; "" is the directory
/// itself. Follows no link and never leaves `directory`. The path must be relative. Not open on
/// failure (errno). Thread-safe.
FileDescriptor OpenBeneath(int directory, std::string_view path, int flags,
                           MountPoints mount_points = MountPoints::kCrossed);

}  // namespace SDK
