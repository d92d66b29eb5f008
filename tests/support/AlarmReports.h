#pragma once

#include <json/value.h>
#include <sdk/text/JsonUtils.h>

#include <string>

namespace test {

/// A report of the store with one alarm.
inline Json::Value AlarmReport(long long seq, long long time_ms, const std::string& action,
                               const std::string& path, const std::string& outcome) {
    Json::Value document;
    document["event_count"] = 1;
    document["file_info"][0]["action"] = action;
    document["file_info"][0]["file_path"] = path;
    document["file_info"][0]["diff"] = "secret of the page";
    Json::Value report;
    report["seq"] = static_cast<Json::Int64>(seq);
    report["time_ms"] = static_cast<Json::Int64>(time_ms);
    report["kind"] = "data";
    report["name"] = "2";
    report["body"] = SDK::JsonUtils::JsonToString(document);
    report["outcome"] = outcome;
    report["duration_ms"] = 2.5;
    return report;
}

}  // namespace test
