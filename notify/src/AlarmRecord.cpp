#include "notify/AlarmRecord.h"

#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>

#include <algorithm>

#include "notify/WhoText.h"

namespace Notify {

using SDK::JsonUtils;

namespace {

long long Number(const Json::Value& object, const char* key) {
    return object.isObject() && object[key].isInt64() ? object[key].asInt64() : 0;
}

}  // namespace

AlarmRecord ReadAlarm(const Json::Value& report) {
    AlarmRecord alarm;
    alarm.time_ms = Number(report, "time_ms");
    alarm.seq = Number(report, "seq");
    const std::string body = JsonUtils::GetStringValue(report, "body", "");
    Json::Value document;
    Json::Value files;
    if (JsonUtils::ParseJsonStr(body.data(), body.size(), document) != 0 ||
        !JsonUtils::GetArrayValue(document, "file_info", files) || files.empty()) {
        return alarm;
    }
    alarm.is_alarm = true;
    alarm.count = std::max(1LL, Number(document, "event_count"));
    alarm.action = JsonUtils::GetStringValue(files[0], "action", "");
    alarm.path = JsonUtils::GetStringValue(files[0], "file_path", "");
    alarm.host = JsonUtils::GetStringValue(report, "host", "");
    alarm.agent_id = JsonUtils::GetStringValue(report, "agent_id", "");
    alarm.outcome = JsonUtils::GetStringValue(report, "outcome", "");
    alarm.who = ShortWho(report);
    if (report["duration_ms"].isNumeric()) alarm.duration_ms = report["duration_ms"].asDouble();
    return alarm;
}

bool AlarmFilter::Matches(const AlarmRecord& alarm) const {
    const bool is_in_time =
        alarm.time_ms >= since_ms && (until_ms == 0 || alarm.time_ms <= until_ms);
    const bool is_there =
        path.empty() || SDK::PathUtils::WithoutTrailingSlash(alarm.path) == path ||
        SDK::StrUtils::BeginsWith(alarm.path, SDK::PathUtils::WithTrailingSlash(path));
    return is_in_time && is_there && (action.empty() || alarm.action == action) &&
           (outcome.empty() || alarm.outcome.find(outcome) != std::string::npos);
}

}  // namespace Notify
