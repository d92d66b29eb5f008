#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace Ctl {

/// What an administrator should know although changes are undone, and the details of reasons why
/// some are not.
struct StatusWarning {
    const char* code;
    std::string text;        ///< safe to print
    bool is_detail = false;  ///< more about a reason of the health, or about a former failure
};

std::vector<StatusWarning> WarningsOf(const Json::Value& status, long long now_ms);

/// One a line; empty when there is none.
std::string FormatWarnings(const Json::Value& status, long long now_ms);

}  // namespace Ctl
