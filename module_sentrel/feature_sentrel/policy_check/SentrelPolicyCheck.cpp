#include "feature_sentrel/policy_check/SentrelPolicyCheck.h"

#include <sdk/text/JsonUtils.h>

#include "feature_sentrel/policy_check/PolicyContentCheck.h"
#include "feature_sentrel/policy_check/PolicyDirListCheck.h"
#include "feature_sentrel/policy_check/PolicyKeys.h"
#include "places/TrustedPlaces.h"

namespace Engine {

namespace {

using SDK::JsonUtils;

constexpr std::size_t kMaxDocument = 4 * 1024 * 1024;
constexpr const char* kContent = "/content";

/// False when the document cannot be checked further.
bool ReadDocument(const std::string& text, Json::Value& root, PolicyFindings& findings) {
    if (text.size() > kMaxDocument) {
        findings.Error("", "the document is larger than 4 MiB");
        return false;
    }
    std::string error;
    if (JsonUtils::ParseJsonStr(text.c_str(), text.size(), root, error) != 0) {
        findings.Error("", "no readable JSON: " + error);
        return false;
    }
    if (root.isObject()) return true;
    findings.Error("", "must be an object");
    return false;
}

void CheckEntryKeys(const Json::Value& content, PolicyFindings& findings) {
    Json::Value list;
    if (!JsonUtils::GetArrayValue(content, "dirlist", list)) return;
    const std::string base = PointerTo(kContent, "dirlist");
    for (Json::ArrayIndex at = 0; at < list.size(); ++at) {
        if (!list[at].isObject()) continue;
        CheckKeys(list[at], PointerTo(base, at), EntryKeys(), ProtectionKeys(), findings);
    }
}

/// Checks keys and types, and sets `content` to the object of that name. False when the document
/// switches the feature off or has no content.
bool CheckFrame(const Json::Value& root, const std::vector<PolicyKey>& content_keys,
                const std::vector<PolicyKey>& entry_keys, Json::Value& content,
                PolicyFindings& findings) {
    CheckKeys(root, "", DocumentKeys(), content_keys, findings);
    const bool has_content = JsonUtils::GetSubobjectValue(root, "content", content);
    if (has_content) CheckKeys(content, kContent, content_keys, entry_keys, findings);
    if (!JsonUtils::GetBoolValue(root, "enabled", false)) return false;
    if (!has_content) findings.Error(kContent, "is missing, or no object");
    return has_content;
}

constexpr const char* kInstallation = "the installation is not safe from other users: ";

void CheckInstallation(PolicyFindings& findings) {
    const std::string why = TrustedPlaces::WhyNotInstallation();
    if (!why.empty()) findings.Error("", kInstallation + why);
}

/// An unsafe installation is only a warning here: an agent of that installation had the policy in
/// force before.
PolicyFindings CheckPlaces(const std::string& text,
                           void (*check)(const Json::Value&, const std::string&, PolicyFindings&)) {
    PolicyFindings findings;
    Json::Value root;
    Json::Value content;
    if (JsonUtils::ParseJsonStr(text.c_str(), text.size(), root) != 0) return findings;
    if (!JsonUtils::GetBoolValue(root, "enabled", false)) return findings;
    const std::string why = TrustedPlaces::WhyNotInstallation();
    if (!why.empty()) findings.Warning("", kInstallation + why);
    if (JsonUtils::GetSubobjectValue(root, "content", content)) check(content, kContent, findings);
    return findings;
}

}  // namespace

PolicyFindings SentrelPolicyCheck::CheckProtection(const std::string& text,
                                                   const WorkSchedule& earlier) {
    PolicyFindings findings;
    Json::Value root;
    Json::Value content;
    if (!ReadDocument(text, root, findings)) return findings;
    const bool on = CheckFrame(root, ProtectionKeys(), EntryKeys(), content, findings);
    if (content.isObject()) CheckEntryKeys(content, findings);
    if (!on) return findings;
    CheckInstallation(findings);
    CheckOsType(content, kContent, findings);
    CheckRsyncSource(content, kContent, RsyncSource::kRequired, findings);
    CheckRemoteBackup(content, kContent, findings);
    CheckSchedule(content, kContent, earlier, findings);
    CheckDirList(content, kContent, findings);
    return findings;
}

PolicyFindings SentrelPolicyCheck::CheckBackUpServer(const std::string& text) {
    PolicyFindings findings;
    Json::Value root;
    Json::Value content;
    if (!ReadDocument(text, root, findings)) return findings;
    if (!CheckFrame(root, BackUpServerKeys(), {}, content, findings)) return findings;
    CheckInstallation(findings);
    CheckRsyncSource(content, kContent, RsyncSource::kOptional, findings);
    CheckReceivingSide(content, kContent, findings);
    return findings;
}

PolicyFindings SentrelPolicyCheck::CheckProtectionPlaces(const std::string& text) {
    return CheckPlaces(text, CheckCopyPlaces);
}

PolicyFindings SentrelPolicyCheck::CheckBackUpServerPlaces(const std::string& text) {
    return CheckPlaces(text, CheckReceivingPlace);
}

Json::Value SentrelPolicyCheck::Answer(const Json::Value& request, const Check& whole,
                                       const Check& places) {
    const Check& check = JsonUtils::GetBoolValue(request, "places_only", false) ? places : whole;
    const PolicyFindings findings = check(JsonUtils::GetStringValue(request, "text", ""));
    const auto list = [](const std::vector<PolicyFinding>& of) {
        Json::Value array(Json::arrayValue);
        for (const PolicyFinding& finding : of) {
            Json::Value entry(Json::objectValue);
            entry["pointer"] = finding.pointer;
            entry["message"] = finding.message;
            array.append(std::move(entry));
        }
        return array;
    };
    Json::Value answer(Json::objectValue);
    answer["errors"] = list(findings.errors);
    answer["warnings"] = list(findings.warnings);
    return answer;
}

}  // namespace Engine
