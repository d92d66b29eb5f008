#pragma once

#include <json/value.h>

#include <string>

namespace Ctl {

/// One alarm report as a line for people: time, action, path, what was done about it and how long
/// that took; with `with_diff` the change below it, indented. Ends with a line end.
std::string FormatAlarm(const Json::Value& report, bool with_diff, long long now_ms);

/// One report of any kind as a line for people. Ends with a line end.
std::string FormatReport(const Json::Value& report, long long now_ms);

/// The report with the alarm's own document beside the text of its body, for programs.
Json::Value AlarmObject(const Json::Value& report);

}  // namespace Ctl
