#include <fleet/SignedPolicy.h>
#include <fleet/Topics.h>
#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <array>

namespace Fleet {

namespace {

// The signature is of this text and the content, so that no other signed text counts as a policy.
constexpr const char* kPurpose = "sentrel-fleet-policy-1\n";
constexpr std::size_t kMaxHosts = 100000;
constexpr std::size_t kSignatureBytes = 64;
constexpr const char* kAllHosts = "*";

std::string ToHex(const std::string& bytes) {
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 15U];
    }
    return text;
}

/// -1 for anything that ToHex does not write.
int Digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

bool FromHex(const std::string& text, std::string& bytes) {
    if (text.size() % 2 != 0) return false;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = Digit(text[i]);
        const int low = Digit(text[i + 1]);
        if (high < 0 || low < 0) return false;
        bytes += static_cast<char>(high * 16 + low);
    }
    return true;
}

/// False when the content is not complete.
bool ReadContent(const std::string& content, SignedPolicy& policy) {
    Json::Value object;
    if (SDK::JsonUtils::ParseJsonStr(content.data(), content.size(), object) != 0 ||
        !object.isObject() || !object["version"].isInt64() || !object["hosts"].isArray() ||
        !object["policy"].isString() || object["hosts"].size() > kMaxHosts) {
        return false;
    }
    policy.version = object["version"].asInt64();
    policy.feature = SDK::JsonUtils::GetStringValue(object, "feature", "");
    policy.text = object["policy"].asString();
    policy.hosts.clear();
    for (const Json::Value& host : object["hosts"]) {
        if (!host.isString()) return false;
        policy.hosts.push_back(host.asString());
    }
    return policy.version > 0 && IsLeaf(policy.feature) && !policy.hosts.empty();
}

}  // namespace

bool SignedPolicy::IsFor(const std::string& agent_id) const {
    return std::any_of(hosts.begin(), hosts.end(), [&agent_id](const std::string& host) {
        return host == agent_id || host == kAllHosts;
    });
}

std::string Sign(const SignedPolicy& policy, const SDK::SigningKey& key) {
    Json::Value content(Json::objectValue);
    content["version"] = Json::Int64{policy.version};
    content["feature"] = policy.feature;
    content["policy"] = policy.text;
    content["hosts"] = Json::Value(Json::arrayValue);
    for (const std::string& host : policy.hosts) content["hosts"].append(host);
    Json::Value document(Json::objectValue);
    document["content"] = SDK::JsonUtils::JsonToString(content);
    const std::string signature = key.Sign(kPurpose + document["content"].asString());
    if (signature.size() != kSignatureBytes) return "";
    document["signature"] = ToHex(signature);
    return SDK::JsonUtils::JsonToString(document);
}

bool ReadSigned(const std::string& document, const SDK::SigningKey& key, SignedPolicy& policy,
                std::string& error) {
    Json::Value object;
    std::string signature;
    error = "it is no signed document";
    if (document.size() > kMaxPolicyBytes ||
        SDK::JsonUtils::ParseJsonStr(document.data(), document.size(), object) != 0 ||
        !FromHex(SDK::JsonUtils::GetStringValue(object, "signature", ""), signature)) {
        return false;
    }
    const std::string content = SDK::JsonUtils::GetStringValue(object, "content", "");
    error = "the signature is not that of the fleet's key";
    if (!key.IsSignature(kPurpose + content, signature)) return false;
    error = "the signed content is not complete";
    return ReadContent(content, policy);
}

}  // namespace Fleet
