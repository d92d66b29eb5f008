#include <fleet/SignedAct.h>
#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <array>

#include "AudienceText.h"

namespace Fleet {

using SDK::JsonUtils;

namespace {

constexpr std::size_t kMostSigner = 100;  // bytes
constexpr std::array<const char*, 8> kNames{"accept", "restore", "rollback", "pause",
                                            "resume", "deploy",  "verify",   "check"};

/// 0: it is none.
std::int64_t NumberIn(const Json::Value& object, const char* key) {
    return object[key].isInt64() ? object[key].asInt64() : 0;
}

}  // namespace

bool IsActName(const std::string& name) {
    return std::find(kNames.begin(), kNames.end(), name) != kNames.end();
}

std::string ContentOf(const SignedAct& act) {
    Json::Value content(Json::objectValue);
    content["number"] = Json::Int64{act.number};
    content["hosts"] = ToJson(act.hosts);
    content["issued"] = Json::Int64{act.issued_s};
    content["expires"] = Json::Int64{act.expires_s};
    content["signer"] = act.signer;
    content["act"] = act.name;
    content["request"] = act.request;
    return JsonUtils::JsonToString(content);
}

bool ReadContent(const std::string& content, SignedAct& act) {
    Json::Value object;
    if (JsonUtils::ParseJsonStr(content.data(), content.size(), object) != 0 ||
        !object.isObject() || !object["request"].isObject() ||
        !ReadAudience(object["hosts"], act.hosts)) {
        return false;
    }
    act.number = NumberIn(object, "number");
    act.issued_s = NumberIn(object, "issued");
    act.expires_s = NumberIn(object, "expires");
    act.signer = JsonUtils::GetStringValue(object, "signer", "");
    act.name = JsonUtils::GetStringValue(object, "act", "");
    act.request = object["request"];
    return act.number > 0 && act.issued_s > 0 && act.expires_s > act.issued_s &&
           act.expires_s - act.issued_s <= SignedAct::kLongestS && IsActName(act.name) &&
           act.signer.size() <= kMostSigner;
}

bool ReadSigned(const std::string& document, const SDK::SigningKey& key, SignedAct& act,
                std::string& error) {
    std::string content;
    if (!Unseal(DocumentKind::kAct, document, key, content, error)) return false;
    error = "the signed content is not complete";
    return ReadContent(content, act);
}

}  // namespace Fleet
