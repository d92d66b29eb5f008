#pragma once

#include <string_view>

#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// Whether a path may cross mount points.
enum class MountPoints { kCrossed, kRefused };

/// Opens `path`, of any length, below `directory` with open(2)'s `flags`; "" is the directory
/// itself. Follows no link and never leaves `directory`. With kRefused a mount point on the path or
/// at its end is EXDEV. The path must be relative. Not open on failure (errno). Thread-safe.
FileDescriptor OpenBeneath(int directory, std::string_view path, int flags,
                           MountPoints mount_points = MountPoints::kCrossed);

}  // namespace SDK
