#include "feature_sentrel/attribution/MergedWho.h"

#include <sdk/text/JsonUtils.h>

#include <algorithm>

namespace Engine {

using SDK::JsonUtils;

namespace {

constexpr Json::ArrayIndex kMostOthers = 8;

}  // namespace

void MergeWho(std::string& who, const std::string& other) {
    Json::Value known;
    Json::Value added;
    if (who == other || JsonUtils::ParseJsonStr(who.data(), who.size(), known) != 0 ||
        JsonUtils::ParseJsonStr(other.data(), other.size(), added) != 0) {
        return;
    }
    const Json::Value& pid = added["pid"];
    Json::Value& others = known["others"];
    const bool is_known =
        pid == known["pid"] || std::any_of(others.begin(), others.end(),
                                           [&](const auto& one) { return one["pid"] == pid; });
    if (pid.isNull() || is_known || others.size() >= kMostOthers) return;
    Json::Value one(Json::objectValue);
    for (const char* name : {"pid", "exe", "uid"}) {
        if (added.isMember(name)) one[name] = added[name];
    }
    others.append(std::move(one));
    who = JsonUtils::JsonToString(known);
}

}  // namespace Engine
