#include "notify/ChannelMark.h"

#include <json/value.h>
#include <sdk/files/FileUtils.h>
#include <sdk/text/JsonUtils.h>

#include <cerrno>

namespace Agent {

namespace {

constexpr long kMostBytes = 256 * 1024;

bool Take(const Json::Value& object, const char* key, long long& value) {
    if (!object[key].isInt64() || object[key].asInt64() < 0) return false;
    value = object[key].asInt64();
    return true;
}

}  // namespace

bool ChannelMark::Read(const std::string& file) {
    std::string text;
    Json::Value object;
    *this = {};
    if (SDK::FileUtils::ReadFile(file, text, kMostBytes) != 0 ||
        SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), object) != 0 || !object.isObject() ||
        !Take(object, "acked", acked) || !Take(object, "sending", sending) ||
        !Take(object, "lost", lost)) {
        *this = {};
        return false;
    }
    for (const Json::Value& time : object["times"]) {
        if (time.isInt64()) times.push_back(time.asInt64());
    }
    return true;
}

int ChannelMark::Write(const std::string& file) const {
    Json::Value object(Json::objectValue);
    object["acked"] = static_cast<Json::Int64>(acked);
    object["sending"] = static_cast<Json::Int64>(sending);
    object["lost"] = static_cast<Json::Int64>(lost);
    object["times"] = Json::Value(Json::arrayValue);
    for (const long long time : times) object["times"].append(static_cast<Json::Int64>(time));
    const std::string text = SDK::JsonUtils::JsonToString(object) + "\n";
    return SDK::FileUtils::WriteFile(file, text, false) == 0 ? 0 : errno;
}

}  // namespace Agent
