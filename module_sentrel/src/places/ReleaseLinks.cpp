// Decides whether a link that names a protected directory is followed. It must not change watches
// or copies (the inotify and the backup task do). Any thread.
#include "places/ReleaseLinks.h"

#include <framework/ConfigManager.h>
#include <sdk/files/PathUtils.h>
#include <sdk/files/PlaceTrust.h>
#include <sdk/log/Log.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "base/ModuleLogger.h"
#include "base/PathText.h"

namespace Engine {

namespace {

namespace fs = std::filesystem;

/// The directory that the link leads to, without a trailing "/"; empty where there is none.
std::string TargetOf(const std::string& link) {
    std::error_code error;
    const fs::path target = fs::canonical(link, error);
    return !error && fs::is_directory(target, error) ? target.string() : std::string();
}

bool Overlap(const std::string& one, const std::string& other) {
    return IsAtOrBelow(one, other) || IsAtOrBelow(other, one);
}

/// What the check of a policy would refuse.
std::string WhyNotProtected(const std::string& target,
                            const std::map<std::string, SentrelDirRule>& rules) {
    if (target == "/") return "it is the whole file system";
    for (const auto& [id, rule] : rules) {
        if (rule.real_path == target + "/") return "another entry protects it";
        if (!rule.backup_path.empty() &&
            Overlap(target, SDK::PathUtils::WithoutTrailingSlash(rule.backup_path))) {
            return "the backup path " + rule.backup_path + " overlaps with it";
        }
    }
    return "";
}

}  // namespace

ReleaseLinks::Mode ReleaseLinks::ConfiguredMode() {
    const Json::Value value =
        Framework::ConfigManager::GetInstance().Section("sentrel")["release_link"];
    if (value.isNull() || value == "follow") return Mode::kFollow;
    if (value == "hold") return Mode::kHold;
    SDK_LOG(
        ModuleLogger(), PRIO_WARNING,
        "conf/agent.json: /sentrel/release_link: must be \"follow\" or \"hold\"; hold is used.");
    return Mode::kHold;
}

void ReleaseLinks::Resolve(std::list<SentrelDirRule>& rules) {
    for (SentrelDirRule& rule : rules) {
        rule.link.clear();
        if (rule.is_file) continue;
        const std::string name = SDK::PathUtils::WithoutTrailingSlash(rule.filepath);
        std::error_code error;
        if (!fs::is_symlink(name, error)) continue;
        const std::string target = TargetOf(name);
        if (target.empty()) continue;
        rule.link = name;
        rule.real_path = SDK::PathUtils::WithTrailingSlash(target);
    }
}

ReleaseLinks::Finding ReleaseLinks::Look(const SentrelDirRule& rule,
                                         const std::map<std::string, SentrelDirRule>& rules,
                                         const std::string& held) {
    if (rule.link.empty()) return {};
    const std::string target = TargetOf(rule.link);
    if (target.empty()) return {"", "the release link " + rule.link + " leads to no directory"};
    if (SDK::PathUtils::WithTrailingSlash(target) == rule.real_path) return {};
    std::string why = held.empty() ? SDK::PlaceTrust::WhyReplaceable(rule.link) : held;
    if (why.empty()) why = WhyNotProtected(target, rules);
    if (why.empty()) return {target + "/", ""};
    return {"", "the release link " + rule.link + " leads to " + target +
                    " now and is not followed: " + why};
}

void ReleaseLinks::Follow(const std::string& filepath, const std::string& target) {
    const std::lock_guard<std::mutex> lock(mutex_);
    targets_[filepath] = target;
    is_waiting_ = true;
}

void ReleaseLinks::Apply(std::list<SentrelDirRule>& rules) {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_waiting_ = false;
    for (SentrelDirRule& rule : rules) {
        const auto target = targets_.find(rule.filepath);
        if (target != targets_.end()) rule.real_path = target->second;
    }
    targets_.clear();
}

void ReleaseLinks::Clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_waiting_ = false;
    targets_.clear();
}

}  // namespace Engine
