#pragma once

#include <json/value.h>

#include <string>

namespace Ctl {

/// One alarm report as a readable line with a line end: time, action, path, outcome and duration,
/// and who made the change; with `with_diff` the whole of that and the change follow, indented.
std::string FormatAlarm(const Json::Value& report, bool with_diff, long long now_ms);

/// One report of any kind as a readable line with a line end.
std::string FormatReport(const Json::Value& report, long long now_ms);

/// The report with the parsed alarm document beside its text, for programs.
Json::Value AlarmObject(const Json::Value& report);

}  // namespace Ctl
