#include <fleet/SignedPolicy.h>
#include <fleet/Topics.h>
#include <sdk/text/JsonUtils.h>

#include "AudienceText.h"

namespace Fleet {

std::string ContentOf(const SignedPolicy& policy) {
    Json::Value content(Json::objectValue);
    content["version"] = Json::Int64{policy.version};
    content["feature"] = policy.feature;
    content["policy"] = policy.text;
    content["hosts"] = ToJson(policy.hosts);
    return SDK::JsonUtils::JsonToString(content);
}

bool ReadContent(const std::string& content, SignedPolicy& policy) {
    Json::Value object;
    if (SDK::JsonUtils::ParseJsonStr(content.data(), content.size(), object) != 0 ||
        !object.isObject() || !object["version"].isInt64() || !object["policy"].isString() ||
        !ReadAudience(object["hosts"], policy.hosts)) {
        return false;
    }
    policy.version = object["version"].asInt64();
    policy.feature = SDK::JsonUtils::GetStringValue(object, "feature", "");
    policy.text = object["policy"].asString();
    return policy.version > 0 && IsLeaf(policy.feature);
}

std::string Sign(const SignedPolicy& policy, const SDK::SigningKey& key) {
    return Seal(DocumentKind::kPolicy, ContentOf(policy), key);
}

bool ReadSigned(const std::string& document, const SDK::SigningKey& key, SignedPolicy& policy,
                std::string& error) {
    std::string content;
    if (!Unseal(DocumentKind::kPolicy, document, key, content, error)) return false;
    error = "the signed content is not complete";
    return ReadContent(content, policy);
}

}  // namespace Fleet
