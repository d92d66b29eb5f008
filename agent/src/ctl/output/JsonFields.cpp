#include "ctl/output/JsonFields.h"

#include <sdk/text/JsonUtils.h>

#include <array>
#include <utility>

#include "ctl/output/Terminal.h"

namespace Ctl {

using SDK::JsonUtils;

namespace {

constexpr long long kMsPerSecond = 1000;
constexpr long long kNow = 2;  ///< seconds

}  // namespace

std::string Text(const Json::Value& object, const char* key) {
    return Printable(JsonUtils::GetStringValue(object, key, ""));
}

long long Number(const Json::Value& object, const char* key) {
    if (!object.isObject() || !object[key].isInt64()) return 0;
    return object[key].asInt64();
}

bool Flag(const Json::Value& object, const char* key) {
    return JsonUtils::GetBoolValue(object, key, false);
}

std::string Counted(long long count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string When(long long epoch_s, long long now_ms) {
    return epoch_s > 0 ? ShortTime(epoch_s * kMsPerSecond, now_ms) : "never";
}

std::string Ago(long long epoch_s, long long now_ms) {
    static constexpr std::array<std::pair<long long, const char*>, 4> kUnits = {
        {{86400, "day"}, {3600, "hour"}, {60, "minute"}, {1, "second"}}};
    const long long seconds = now_ms / kMsPerSecond - epoch_s;
    if (seconds < kNow) return "just now";
    for (const auto& [length, name] : kUnits) {
        if (seconds >= length) return Counted(seconds / length, name) + " ago";
    }
    return "";
}

}  // namespace Ctl
