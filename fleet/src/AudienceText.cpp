#include "AudienceText.h"

namespace Fleet {

namespace {

constexpr Json::ArrayIndex kMaxHosts = 100000;

}  // namespace

Json::Value ToJson(const Audience& audience) {
    Json::Value list(Json::arrayValue);
    for (const std::string& one : audience) list.append(one);
    return list;
}

bool ReadAudience(const Json::Value& list, Audience& audience) {
    audience.clear();
    if (!list.isArray() || list.size() > kMaxHosts) return false;
    for (const Json::Value& one : list) {
        if (!one.isString() || !IsAudience(one.asString())) return false;
        audience.push_back(one.asString());
    }
    return !audience.empty();
}

}  // namespace Fleet
