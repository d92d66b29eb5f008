// Reads one member of a policy. It must not judge policies (the protection module does).
#include "ctl/baselines/PolicyPaths.h"

#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>

#include <filesystem>
#include <system_error>

#include "common/ControlProtocol.h"

namespace Ctl {

using SDK::JsonUtils;

namespace {

constexpr char kPolicies[] = "data/policies/";
// Backup types of which the agent makes the copies itself.
constexpr int kLocal = 0;
constexpr int kLocalAndRemote = 2;

/// Empty for an entry that is switched off.
std::string PathOf(const Json::Value& entry) {
    if (!JsonUtils::GetBoolValue(entry, "enable", false)) return "";
    return JsonUtils::GetStringValue(entry, "filepath", "");
}

}  // namespace

std::string CanonicalPath(const std::string& path) {
    std::error_code error;
    const auto resolved = std::filesystem::weakly_canonical(path, error);
    return SDK::PathUtils::WithoutTrailingSlash(error ? path : std::string(resolved));
}

Json::Value KeptPolicyContent(const std::string& feature) {
    std::string text;
    Json::Value policy;
    Json::Value content;
    const std::string file = SDK::PathUtils::BelowInstallation(kPolicies + feature + ".json");
    if (SDK::FileUtils::ReadFile(file, text, Agent::kMaxBodyBytes) != 0 ||
        JsonUtils::ParseJsonStr(text.data(), text.size(), policy) != 0 ||
        !JsonUtils::GetBoolValue(policy, "enabled", false) ||
        !JsonUtils::GetSubobjectValue(policy, "content", content)) {
        return {};
    }
    return content;
}

std::optional<std::map<std::string, bool>> PolicyPaths() {
    const Json::Value content = KeptPolicyContent("sentrel_feature");
    Json::Value entries;
    if (!content.isObject() || !JsonUtils::GetArrayValue(content, "dirlist", entries)) {
        return std::nullopt;
    }
    const int type = JsonUtils::GetIntValue(content, "backup_type", kLocal);
    const bool makes_copies = type == kLocal || type == kLocalAndRemote;
    std::map<std::string, bool> paths;
    for (const Json::Value& entry : entries) {
        const std::string path = PathOf(entry);
        if (path.empty()) continue;
        const bool has_place = !JsonUtils::GetStringValue(entry, "backup_path", "").empty();
        paths[CanonicalPath(path)] = makes_copies && has_place;
    }
    return paths;
}

}  // namespace Ctl
