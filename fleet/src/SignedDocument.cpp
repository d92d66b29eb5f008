// Owns the envelope of what an operator signs. Must not know what the contents mean.
#include <fleet/SignedDocument.h>
#include <fleet/Topics.h>
#include <sdk/text/JsonUtils.h>

#include <algorithm>

namespace Fleet {

using SDK::JsonUtils;

namespace {

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

bool Parse(const std::string& document, Json::Value& object) {
    return document.size() <= kMaxDocumentBytes &&
           JsonUtils::ParseJsonStr(document.data(), document.size(), object) == 0 &&
           object.isObject() && object["content"].isString();
}

}  // namespace

std::string KindName(DocumentKind kind) {
    return kind == DocumentKind::kAct ? "act" : "policy";
}

std::string SignedBytes(DocumentKind kind, const std::string& content) {
    return "sentrel-fleet-" + KindName(kind) + "-1\n" + content;
}

std::string ToBeSigned(DocumentKind kind, const std::string& content) {
    Json::Value document(Json::objectValue);
    document["kind"] = KindName(kind);
    document["content"] = content;
    return JsonUtils::JsonToString(document);
}

bool ReadToBeSigned(const std::string& document, DocumentKind& kind, std::string& content) {
    Json::Value object;
    if (!Parse(document, object) || object.isMember("signature")) return false;
    content = object["content"].asString();
    const std::string name = JsonUtils::GetStringValue(object, "kind", "");
    kind = name == KindName(DocumentKind::kAct) ? DocumentKind::kAct : DocumentKind::kPolicy;
    return name == KindName(kind);
}

std::string Seal(DocumentKind kind, const std::string& content, const SDK::SigningKey& key) {
    const std::string signature = key.Sign(SignedBytes(kind, content));
    if (signature.size() != kSignatureBytes) return "";
    Json::Value document(Json::objectValue);
    document["content"] = content;
    document["signature"] = ToHex(signature);
    const std::string text = JsonUtils::JsonToString(document);
    return text.size() <= kMaxDocumentBytes ? text : "";
}

bool Unseal(DocumentKind kind, const std::string& document, const SDK::SigningKey& key,
            std::string& content, std::string& error) {
    Json::Value object;
    std::string signature;
    error = "it is no signed document";
    if (!Parse(document, object) ||
        !FromHex(JsonUtils::GetStringValue(object, "signature", ""), signature)) {
        return false;
    }
    error = "the signature is not that of the fleet's key";
    content = object["content"].asString();
    return key.IsSignature(SignedBytes(kind, content), signature);
}

bool ReadUnverified(const std::string& document, std::string& content) {
    Json::Value object;
    if (!Parse(document, object) || !object["signature"].isString()) return false;
    content = object["content"].asString();
    return true;
}

bool IsFor(const Audience& audience, const Identity& host) {
    return std::any_of(audience.begin(), audience.end(), [&host](const std::string& one) {
        if (one == host.agent_id || one == kAllHosts) return true;
        return !one.empty() && one.front() == '@' &&
               std::count(host.groups.begin(), host.groups.end(), one.substr(1)) > 0;
    });
}

bool IsAudience(const std::string& text) {
    if (text == kAllHosts || IsAgentId(text)) return true;
    return !text.empty() && text.front() == '@' && IsLeaf(text.substr(1));
}

}  // namespace Fleet
