#include "FleetAlarm.h"

#include <json/value.h>
#include <module_utils/ModuleUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/CryptoCodeUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/time/TimeUtils.h>

#include <utility>

#include "FleetLog.h"

namespace Engine {

void SendFleetAlarm(const std::string& name, const std::string& text) {
    Json::Value alarm(Json::objectValue);
    alarm["event_id"] = SDK::CryptoCodeUtils::GenerateUUID();
    alarm["event_classid"] = "sentrel_0002";
    alarm["event_name"] = "Sentrel fleet";
    alarm["occur_time"] = static_cast<Json::Int64>(SDK::TimeUtils::GetCurrentTimestampS());
    alarm["severity"] = 2;
    alarm["event_count"] = 1;
    alarm["detect_module"] = kFleetModuleName;
    Json::Value file(Json::objectValue);
    file["file_path"] = SDK::PathUtils::GetInstallationPath() + "data";
    file["action"] = "unknown";
    file["diff"] = text;
    file["diff_attr"] = "";
    alarm["file_info"].append(std::move(file));
    SendAlarmMessage(name, SDK::JsonUtils::JsonToString(alarm));
}

}  // namespace Engine
