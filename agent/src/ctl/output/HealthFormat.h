#pragma once

#include <json/value.h>

#include <string>

namespace Ctl {

/// Whether changes are undone, as the status document says it.
enum class Health { kHealthy, kDegraded, kOff };

/// A document without a health counts as degraded.
Health HealthOf(const Json::Value& status);

/// One line that says it all, with a line end: "Protected: 2 paths. Last change undone 3 minutes
/// ago.", "DEGRADED: ..." or "OFF: ...".
std::string FormatHeadline(const Json::Value& status, long long now_ms);

/// The reasons that concern no path that the document lists, one a line, for more than one reason;
/// otherwise the headline has it.
std::string FormatGeneralReasons(const Json::Value& status);

/// The reasons that concern `path`, one a line, indented.
std::string FormatReasonsOf(const Json::Value& status, const std::string& path);

}  // namespace Ctl
