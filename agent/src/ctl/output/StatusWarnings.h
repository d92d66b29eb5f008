#pragma once

#include <json/value.h>

#include <string>

namespace Ctl {

/// What an administrator should know although changes are undone, and the details of reasons why
/// some are not; one a line.
std::string FormatWarnings(const Json::Value& status, long long now_ms);

}  // namespace Ctl
