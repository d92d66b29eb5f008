#pragma once

#include <json/value.h>

#include <map>
#include <optional>
#include <string>

namespace Ctl {

/// The paths that the kept policy protects, links resolved, without a trailing "/"; true for those
/// of which the agent makes copies. None: it does not tell, for example because the protection is
/// off. Reads the disk; asks no agent.
std::optional<std::map<std::string, bool>> PolicyPaths();

/// The "content" of the policy that is kept of `feature`; null when there is none, or it is
/// switched off. Reads the disk; asks no agent.
Json::Value KeptPolicyContent(const std::string& feature);

/// `path` with the links of what exists resolved, without a trailing "/".
std::string CanonicalPath(const std::string& path);

}  // namespace Ctl
