#pragma once

#include <vector>

#include "feature_sentrel/policy_check/ConfiguredPaths.h"
#include "feature_sentrel/policy_check/PolicyFindings.h"

namespace Engine {

/// Warns of names below the protected paths that an exclusion matches by accident. Reads at most
/// 20,000 names in all.
void CheckNamesBelow(const std::vector<ProtectedPlace>& places, PolicyFindings& findings);

}  // namespace Engine
