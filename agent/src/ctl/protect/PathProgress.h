#pragma once

#include <json/value.h>

#include <string>

namespace Ctl {

/// How far the agent is with a path that a new policy names.
struct PathProgress {
    enum class Stage {
        kUnknown,  ///< the agent does not list it yet
        kWatching,
        kCopying,
        kPaused,  ///< the schedule pauses the protection
        kReady,   ///< watched and copied
    };
    Stage stage = Stage::kUnknown;
    std::string problem;  ///< what keeps it from being ready; safe to print; empty: only time
    std::string copies;   ///< where its copies are; empty before the agent lists the path
    Json::Value reasons{Json::arrayValue};  ///< of its health, for a path that is ready
};

/// Reads it from a status document. `path` as in the policy, without a trailing "/".
PathProgress ProgressOf(const Json::Value& status, const std::string& path);

/// Why a policy must not be applied now: applying one approves the state of all paths, also what
/// waits for a decision. Empty when nothing does. Of `leaving`, a path that the new policy does not
/// name, nothing counts; empty for none.
std::string WhyNothingCanBeApproved(const Json::Value& status, const std::string& leaving);

}  // namespace Ctl
