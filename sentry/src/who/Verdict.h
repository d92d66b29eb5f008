#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "who/TouchLog.h"

namespace Sentry {

/// Who changed an object, as far as it can be told.
struct Verdict {
    std::string certainty = "unknown";  ///< "exact", "likely" or "unknown"
    std::string reason = {};            ///< why not exact
    Touch culprit = {};                 ///< with a process unless the certainty is "unknown"
    std::vector<Touch> others = {};     ///< further ones within a second
};

/// Chooses among the touches of an object the one that a change at `at` is due to; 0: the time of
/// the change is not known.
Verdict JudgeTouches(const std::vector<Touch>& touches, Nanoseconds at, Nanoseconds now);

/// {"certainty", "reason", "pid", "start", "exe", "cmdline", "uid", "euid", "login", "session",
/// "unit", "container", "parents": [{"pid", "exe"}], "others": [{"pid", "exe", "uid"}]}: what is
/// not known is left out. "start" is in seconds since the epoch.
Json::Value ToJson(const Verdict& verdict, bool with_cmdline);

}  // namespace Sentry
