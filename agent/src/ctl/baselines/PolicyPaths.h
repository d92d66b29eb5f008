#pragma once

#include <map>
#include <optional>
#include <string>

namespace Ctl {

/// The paths that the kept policy protects, links resolved, without a trailing "/"; true for those
/// of which the agent makes copies. None: it does not tell, for example because the protection is
/// off. Reads the disk; asks no agent.
std::optional<std::map<std::string, bool>> PolicyPaths();

/// `path` with the links of what exists resolved, without a trailing "/".
std::string CanonicalPath(const std::string& path);

}  // namespace Ctl
