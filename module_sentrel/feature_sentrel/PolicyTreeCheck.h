#pragma once

#include <PolicyFindings.h>
#include <ProtectedPlaces.h>

#include <vector>

namespace Engine {

/// Warns of names below the protected paths that rsync's command line cannot carry, and of those
/// that an exclusion hits without being meant. Looks at no more than 20000 names in all.
void CheckNamesBelow(const std::vector<ProtectedPlace>& places, PolicyFindings& findings);

}  // namespace Engine
