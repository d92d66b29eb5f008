// Owns the wishes of the operators and the news of the sentry. It must not raise alarms (the
// inotify task does). Any thread.
#include "shield/Shield.h"

#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

namespace Engine {

using SDK::JsonUtils;

namespace {

constexpr char kOff[] = "off";
constexpr long kMostBytes = 4L * 1024 * 1024;

std::string File() {
    return SDK::PathUtils::GetInstallationPath() + "data/shield.json";
}

/// Of a file in memory, which nobody changes any more.
std::uint64_t SizeOf(const SDK::FileDescriptor& content) {
    struct stat info {};
    const bool is_known = content.IsOpen() && ::fstat(content.Get(), &info) == 0;
    return is_known ? static_cast<std::uint64_t>(info.st_size) : 0;
}

}  // namespace

bool Shield::IsMode(const std::string& mode) {
    return mode == kOff || mode == "monitor" || mode == "heal" || mode == "deny";
}

void Shield::Load() {
    const std::lock_guard<std::mutex> lock(mutex_);
    modes_.clear();
    std::string text;
    Json::Value all;
    if (SDK::FileUtils::ReadFile(File(), text, kMostBytes) != 0 ||
        JsonUtils::ParseJsonStr(text.data(), text.size(), all) != 0 || !all.isObject()) {
        return;
    }
    for (const std::string& name : all.getMemberNames()) {
        const std::string mode = JsonUtils::GetStringValue(all, name.c_str(), "");
        std::string path;
        if (IsMode(mode) && SDK::PercentDecode(name, path)) modes_[path] = mode;
    }
}

int Shield::Write() const {
    Json::Value all(Json::objectValue);
    for (const auto& [path, mode] : modes_) all[SDK::PercentEncode(path)] = mode;
    return SDK::FileUtils::WriteFile(File(), JsonUtils::JsonToString(all), false);
}

std::string Shield::ModeOf(const std::string& real_path) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = modes_.find(real_path);
    return known == modes_.end() ? kOff : known->second;
}

int Shield::SetMode(const std::string& real_path, const std::string& mode) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::map<std::string, std::string> before = modes_;
    modes_.erase(real_path);
    if (mode != kOff) modes_[real_path] = mode;
    if (Write() == 0) return 0;
    modes_ = before;
    return -1;
}

void Shield::Suspend(std::chrono::milliseconds time) {
    const std::lock_guard<std::mutex> lock(mutex_);
    suspended_until_ = Clock::now() + time;
}

bool Shield::IsSuspended() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return Clock::now() < suspended_until_;
}

std::uint64_t Shield::SerialOf(const Json::Value& rules) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (rules != rules_) {
        rules_ = rules;
        ++serial_;
    }
    return serial_;
}

void Shield::Tell(Told told) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (told_.size() >= kMostTold) {
        ++dropped_;
        return;
    }
    if (told_bytes_ + SizeOf(told.content) > kMostContent) told.content.Reset();
    told_bytes_ += SizeOf(told.content);
    told_.push_back(std::move(told));
}

std::optional<Shield::Told> Shield::Take() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (told_.empty()) return std::nullopt;
    Told first = std::move(told_.front());
    told_.pop_front();
    told_bytes_ -= SizeOf(first.content);
    return first;
}

std::uint64_t Shield::TakeDropped() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(dropped_, 0);
}

}  // namespace Engine
