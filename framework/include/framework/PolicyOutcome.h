#pragma once

#include <string>

namespace Framework {

/// Who wants a policy to be in force.
enum class PolicyOrigin {
    kOperator,  ///< somebody pushed it just now
    kKept,      ///< the agent itself: it was in force before
};

/// The outcome of a pushed policy.
struct PolicyOutcome {
    bool handled = false;   ///< a callback took it (set the handled flag)
    int result = 0;         ///< that callback's result; non-zero: the feature is on
    std::string exception;  ///< what the callback threw, if it did
    std::string rejection;  ///< why the module refused the policy, if it did
};

/// The outcome of a tasklet request.
struct TaskletOutcome {
    bool found = false;
    int result = 0;
    std::string exception;
};

}  // namespace Framework
