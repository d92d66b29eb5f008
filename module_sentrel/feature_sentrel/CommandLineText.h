#pragma once

#include <string>

namespace Engine {

// rsync's command lines carry paths as they stand and exclusions in double quotes; a shell reads
// them. These tell what would not arrive as it was written.

/// What keeps a path off the command line, in words ("a blank", "the character $"); empty when
/// nothing does.
std::string WhatBreaksPath(const std::string& path);

/// The same for an exclusion, within double quotes and as a pattern of rsync.
std::string WhatBreaksExclusion(const std::string& exclusion);

}  // namespace Engine
