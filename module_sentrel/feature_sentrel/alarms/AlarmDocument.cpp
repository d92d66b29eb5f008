#include "feature_sentrel/alarms/AlarmDocument.h"

#include <json/value.h>
#include <sdk/text/CryptoCodeUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/time/TimeUtils.h>

#include <utility>

namespace Engine {

namespace {

const char* ActionOf(alarm_type type) {
    switch (type) {
        case ALARM_ADD:
            return "add";
        case ALARM_DELETE:
            return "delete";
        case ALARM_MODIFY:
            return "modify";
        case ALARM_ATTRIBUTE:
            return "attribute";
        default:
            return "unknown";
    }
}

}  // namespace

SentrelCacheMsg AlarmRecord(const std::string& file_path, alarm_type type) {
    SentrelCacheMsg record;
    record.occur_time = SDK::TimeUtils::GetCurrentTimestampS();
    record.count = 1;
    record.type = type;
    for (const alarm_type any :
         {ALARM_ADD, ALARM_DELETE, ALARM_MODIFY, ALARM_ATTRIBUTE, ALARM_UNKNOWN}) {
        record.type_counts[any] = 0;
    }
    record.file_path = file_path;
    return record;
}

std::string AlarmText(const Alarm& told) {
    Json::Value alarm(Json::objectValue);
    alarm["event_id"] = SDK::CryptoCodeUtils::GenerateUUID();
    alarm["event_classid"] = "sentrel_0001";
    alarm["event_name"] = "Linux web tamper protection";
    alarm["occur_time"] = static_cast<Json::Int64>(SDK::TimeUtils::GetCurrentTimestampS());
    alarm["event_category"] = 8000;
    alarm["event_type"] = 8003;
    alarm["severity"] = 2;
    alarm["event_count"] = static_cast<Json::UInt64>(told.count);
    alarm["attack_phase"] = 4;
    alarm["attack_tag"] = 3;
    alarm["confidence"] = 70;
    alarm["detect_module"] = "sentrel_module";
    Json::Value file(Json::objectValue);
    file["file_path"] = told.file;
    file["action"] = ActionOf(told.type);
    file["diff"] = told.diff;
    file["diff_attr"] = told.diff_attr;
    alarm["file_info"].append(std::move(file));
    return SDK::JsonUtils::JsonToString(alarm);
}

}  // namespace Engine
