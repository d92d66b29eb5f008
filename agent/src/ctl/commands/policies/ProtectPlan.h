#pragma once

#include <string>
#include <vector>

#include "ctl/commands/policies/ProtectCommands.h"
#include "ctl/protect/ProtectionPolicy.h"
#include "ctl/protect/SiteKind.h"
#include "ctl/protect/TreeSurvey.h"

namespace Ctl {

/// What "protect" is going to do about one path.
struct ProtectPlan {
    ProtectedEntry entry;
    bool is_known = false;      ///< the policy names the path already
    bool is_unchanged = false;  ///< and says the same of it
    SiteKind kind;
    SurveyResult survey;
    std::string error = {};  ///< why it cannot be done; else empty
    int exit_code = 0;       ///< with an error
};

/// Looks at the path and decides what the policy shall say of it. `policy` is as it is now.
ProtectPlan MakePlan(const ProtectOptions& options, const ProtectionPolicy& policy);

/// The plan in plain words, with the paths that stay protected beside it.
std::string FormatPlan(const ProtectPlan& plan, const ProtectionPolicy& policy);

/// The absolute path that a policy names: links above it resolved, the path itself kept as a link.
/// Without a trailing "/".
std::string PolicyPathOf(const std::string& given);

}  // namespace Ctl
