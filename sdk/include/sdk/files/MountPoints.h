#pragma once

namespace SDK {

/// Whether a path may cross mount points. Where they are refused, a mount point on the path or at
/// its end is EXDEV.
enum class MountPoints { kCrossed, kRefused };

}  // namespace SDK
