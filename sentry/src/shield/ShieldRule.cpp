#include "shield/ShieldRule.h"

#include <baseline/BaselineStore.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>
#include <sdk/text/StrUtils.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace Sentry {

namespace {

bool ReadText(const Json::Value& given, std::string& text) {
    return given.isString() && SDK::PercentDecode(given.asString(), text) && !text.empty() &&
           text.find('\0') == std::string::npos;
}

bool ReadTexts(const Json::Value& given, std::vector<std::string>& texts) {
    if (!given.isArray()) return false;
    for (const Json::Value& one : given) {
        texts.emplace_back();
        if (!ReadText(one, texts.back())) return false;
    }
    return true;
}

bool ReadMode(const Json::Value& given, ShieldMode& mode) {
    const std::string text = SDK::JsonUtils::GetStringValue(given, "mode", "");
    if (text == "monitor") mode = ShieldMode::kMonitor;
    if (text == "heal") mode = ShieldMode::kHeal;
    if (text == "deny") mode = ShieldMode::kDeny;
    return text == "monitor" || text == "heal" || text == "deny";
}

}  // namespace

std::shared_ptr<const ShieldRule> ShieldRule::Read(const Json::Value& given,
                                                   const std::string& baselines,
                                                   std::string& error) {
    auto rule = std::make_shared<ShieldRule>();
    const bool is_read =
        ReadText(given["path"], rule->real_path) && ReadText(given["backup"], rule->backup_path) &&
        ReadMode(given, rule->mode) && given["generation"].isUInt() &&
        ReadTexts(given["prefixes"], rule->prefixes) &&
        ReadTexts(given["suffixes"], rule->suffixes) && rule->real_path.front() == '/' &&
        rule->real_path.back() == '/' && rule->real_path.size() > 1;
    error = "the agent's description of the directory cannot be read";
    if (!is_read) return nullptr;
    rule->root = SDK::PathUtils::WithoutTrailingSlash(rule->real_path);
    rule->generation = given["generation"].asUInt();
    Baseline::Generation approved = Baseline::BaselineStore(baselines).Get(
        rule->real_path, rule->backup_path, rule->generation);
    rule->manifest = std::move(approved.manifest);
    error = "its approved state cannot be used: " + approved.problem;
    if (rule->manifest == nullptr) return nullptr;
    rule->copies = SDK::PathAnchor::Open(rule->backup_path);
    error = "cannot open " + rule->backup_path + ": " + std::strerror(errno);
    return rule->copies == nullptr ? nullptr : rule;
}

bool ShieldRule::IsLeftOut(const std::string& directory) const {
    return std::any_of(prefixes.begin(), prefixes.end(), [&directory](const std::string& prefix) {
        return SDK::StrUtils::BeginsWith(directory, prefix);
    });
}

bool ShieldRule::IsIgnored(const std::string& file) const {
    const auto ends_with = [&file](const std::string& suffix) {
        return SDK::StrUtils::EndsWith(file, suffix);
    };
    return IsLeftOut(file) || std::any_of(suffixes.begin(), suffixes.end(), ends_with);
}

std::vector<std::string> ShieldRule::ReadHeld(const Json::Value& given) {
    std::vector<std::string> held;
    ReadTexts(given["held"], held);
    return held;
}

}  // namespace Sentry
