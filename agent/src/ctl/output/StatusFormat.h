#pragma once

#include <json/value.h>

#include <string>

namespace Ctl {

/// The status document as a page for people. Members that are missing are left out.
std::string FormatStatus(const Json::Value& status, long long now_ms);

}  // namespace Ctl
