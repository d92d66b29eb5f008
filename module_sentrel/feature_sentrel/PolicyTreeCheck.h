#pragma once

#include <PolicyFindings.h>
#include <ProtectedPlaces.h>

#include <vector>

namespace Engine {

/// Warns of names below the protected paths that an exclusion hits without being meant. Looks at no
/// more than 20000 names in all.
void CheckNamesBelow(const std::vector<ProtectedPlace>& places, PolicyFindings& findings);

}  // namespace Engine
