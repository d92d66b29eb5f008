#pragma once

#include <json/value.h>

#include <string>

namespace Ctl {

/// The status document as readable text. Missing members are left out.
std::string FormatStatus(const Json::Value& status, long long now_ms);

}  // namespace Ctl
