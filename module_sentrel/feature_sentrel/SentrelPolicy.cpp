// Reads protection policies. It owns nothing: the settings are SentrelUtils'. It must not register
// tasks (SentrelPolicyRefresh.cpp does). Framework thread.
#include "feature_sentrel/SentrelPolicy.h"

#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>

#include "base/ModuleLogger.h"
#include "feature_sentrel/schedule/WorkSchedule.h"
#include "progress/BackupProgress.h"
#include "rsync/RsyncKeys.h"
#include "utils/SentrelUtils.h"

namespace Engine {

namespace {

using SDK::JsonUtils;

constexpr unsigned int kMaxUrlLength = 10240;
constexpr unsigned int kMaxHashLength = 128;

std::string AsText(const Json::Value& value) {
    return value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
}

bool Lstat(const std::string& path, struct stat& info) {
    if (::lstat(path.c_str(), &info) == 0) return true;
    SDK_LOG(ModuleLogger(), PRIO_ERROR, "get stat of (%s) failed.", path);
    return false;
}

bool ResolveLink(SentrelDirRule& rule) {
    const std::unique_ptr<char, void (*)(void*)> resolved(
        ::realpath(rule.filepath.c_str(), nullptr), &std::free);
    if (resolved == nullptr) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "resolve link (%s) failed.", rule.filepath);
        return false;
    }
    rule.real_path = resolved.get();
    struct stat info {};
    if (!Lstat(rule.real_path, info)) return false;
    rule.is_file = S_ISREG(info.st_mode);
    if (S_ISDIR(info.st_mode)) rule.real_path = SDK::PathUtils::WithTrailingSlash(rule.real_path);
    return true;
}

bool CheckPath(SentrelDirRule& rule) {
    if (rule.filepath.at(0) != '/') {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "%s should be abspath.", rule.filepath);
        return false;
    }
    struct stat info {};
    if (!Lstat(rule.filepath, info)) return false;
    switch (info.st_mode & S_IFMT) {
        case S_IFREG:
            rule.is_file = true;
            return true;
        case S_IFDIR:
            rule.filepath = SDK::PathUtils::WithTrailingSlash(rule.filepath);
            rule.real_path = rule.filepath;
            return true;
        case S_IFLNK:
            return ResolveLink(rule);
        default:
            SDK_LOG(ModuleLogger(), PRIO_ERROR, "file (%s) type not support.", rule.filepath);
            return false;
    }
}

void ReadExclusions(const Json::Value& entry, SentrelDirRule& rule) {
    Json::Value list;
    if (JsonUtils::GetArrayValue(entry, "ignored_postfix", list)) {
        for (const Json::Value& element : list) {
            std::string postfix = AsText(element);
            SDK::StrUtils::Trim(postfix);
            rule.ignored_postfix.push_back(postfix);
        }
    }
    if (JsonUtils::GetArrayValue(entry, "ignored_subdir", list)) {
        for (const Json::Value& element : list) {
            std::string subdir = AsText(element);
            SDK::StrUtils::Trim(subdir);
            if (subdir.at(0) == '/') subdir.erase(0, 1);
            rule.ignored_subdir.push_back(subdir);
        }
    }
}

}  // namespace

SentrelFeaturePolicy::SentrelFeaturePolicy(const std::string& name, BackupProgress& progress)
    : Framework::FeaturePolicy(name), progress_(progress) {}

bool SentrelFeaturePolicy::Parse(const std::string& text) {
    SDK_LOG(ModuleLogger(), PRIO_DEBUG, "Sentrel parse policy %s.", text);
    Json::Value root;
    if (JsonUtils::ParseJsonStr(text.c_str(), text.size(), root) != 0) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "parse feature policy failed.");
        return false;
    }
    Json::Value content;
    if (!JsonUtils::GetSubobjectValue(root, "content", content)) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "parse content failed.");
        return false;
    }
    if (JsonUtils::GetIntValue(content, "os_type", 1) != 0) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "parse os type failed.");
        return false;
    }
    if (!ParseRsyncPolicy(content)) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "parse rsync policy failed.");
        return false;
    }
    SentrelUtils* utils = SentrelUtils::GetInstance();
    utils->backup_type = JsonUtils::GetIntValue(content, "backup_type", 0);
    utils->backup_port = JsonUtils::GetIntValue(content, "backup_port", 0);
    utils->backup_addr = JsonUtils::GetStringValue(content, "backup_addr", "");
    progress_.Restart();
    utils->local_backup_pending = true;
    utils->remote_backup_pending = true;
    utils->distime_enable = JsonUtils::GetBoolValue(content, "distime_enable", false);
    SDK::PathUtils::GetInstallationPath(utils->install_path);
    ParseDirList(content, utils->backup_type);
    if (utils->distime_enable) ParseDisableTime(content);
    ParseDiffPolicy(content);
    utils->monitor_only = JsonUtils::GetBoolValue(content, "monitor_only", false);
    return true;
}

bool SentrelFeaturePolicy::ParseRsyncPolicy(const Json::Value& content) {
    const RsyncKeys keys = RsyncKeys::OfThisHost();
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "rsync key : %s : %s", keys.url, keys.hash);
    SentrelUtils* utils = SentrelUtils::GetInstance();
    utils->rsync_url = JsonUtils::GetStringValue(content, keys.url.c_str(), "");
    utils->rsync_hash = JsonUtils::GetStringValue(content, keys.hash.c_str(), "");
    const auto url_length = static_cast<unsigned int>(utils->rsync_url.size());
    const auto hash_length = static_cast<unsigned int>(utils->rsync_hash.size());
    const bool url_valid = utils->IsLengthValid(url_length, 1, kMaxUrlLength);
    const bool hash_valid = utils->IsLengthValid(hash_length, 1, kMaxHashLength);
    if (!url_valid) utils->rsync_url.clear();
    if (!hash_valid) utils->rsync_hash.clear();
    return url_valid && hash_valid;
}

void SentrelFeaturePolicy::ParseDirList(const Json::Value& content,
                                        [[maybe_unused]] int backup_type) {
    Json::Value list;
    if (!JsonUtils::GetArrayValue(content, "dirlist", list)) return;
    std::list<SentrelDirRule>& rules = SentrelUtils::GetInstance()->dir_rules;
    rules.clear();
    for (const Json::Value& entry : list) {
        if (!JsonUtils::GetBoolValue(entry, "enable", false)) continue;
        SentrelDirRule rule;
        rule.auto_restore = JsonUtils::GetBoolValue(entry, "auto_restore", false);
        rule.backup_path = JsonUtils::GetStringValue(entry, "backup_path", "");
        rule.filepath = JsonUtils::GetStringValue(entry, "filepath", "");
        rule.real_path = rule.filepath;
        if (!CheckPath(rule)) {
            SDK_LOG(ModuleLogger(), PRIO_ERROR, "check_path (%s) failed.", rule.filepath);
            continue;
        }
        ReadExclusions(entry, rule);
        rules.push_back(rule);
    }
}

void SentrelFeaturePolicy::ParseDisableTime(const Json::Value& content) {
    Json::Value list;
    if (JsonUtils::GetArrayValue(content, "disable_timerange", list)) {
        for (const Json::Value& range : list) SetDisableWorkTime(AsText(range));
    }
    if (JsonUtils::GetArrayValue(content, "disable_week", list)) {
        for (const Json::Value& day : list) {
            if (!day.isUInt() || day.asUInt() >= static_cast<unsigned int>(kDaysPerWeek)) continue;
            SentrelUtils::GetInstance()->weekday_enabled[day.asUInt()] = false;
        }
    }
}

void SentrelFeaturePolicy::SetDisableWorkTime(const std::string& range) {
    WorkSchedule schedule = WorkSchedule::OfSettings();
    schedule.DisableRange(range);
    SentrelUtils::GetInstance()->minute_enabled = schedule.minutes;
}

void SentrelFeaturePolicy::ParseDiffPolicy(const Json::Value& content) {
    SentrelUtils* utils = SentrelUtils::GetInstance();
    utils->diff_content = JsonUtils::GetBoolValue(content, "diff_content", false);
    utils->diff_attr = JsonUtils::GetBoolValue(content, "diff_attr", false);
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "diff_content=%s, diff_attr=%s",
            std::string(utils->diff_content ? "true" : "false"),
            std::string(utils->diff_attr ? "true" : "false"));
}

SentrelInotifyTaskPolicy::SentrelInotifyTaskPolicy(const std::string& name)
    : Framework::TaskPolicy(name) {}

bool SentrelInotifyTaskPolicy::Parse(const std::string&) {
    return true;
}

}  // namespace Engine
