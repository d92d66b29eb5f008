// Owns which protected paths pause. It must not hold or undo anything (the inotify task does). Any
// thread.
#include "deploy/Pauses.h"

#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/ModuleLogger.h"

namespace Engine {

using SDK::JsonUtils;

namespace {

constexpr int kLeastSeconds = 1;
constexpr int kMostSeconds = 7 * 24 * 3600;
constexpr int kDefaultSeconds = 1800;
constexpr long kMostBytes = 4L * 1024 * 1024;

std::string File() {
    return SDK::PathUtils::GetInstallationPath() + "data/pauses.json";
}

Json::Value Object(const Pauses::Pause& pause, const std::string& path, const std::string& reason) {
    Json::Value one(Json::objectValue);
    one["path"] = path;
    one["reason"] = reason;
    one["user"] = pause.user;
    one["process"] = pause.process;
    one["begun"] = static_cast<Json::Int64>(pause.begun);
    one["until"] = static_cast<Json::Int64>(pause.until);
    return one;
}

Json::Value Error(const std::string& sentence) {
    Json::Value answer(Json::objectValue);
    answer["error"] = sentence;
    return answer;
}

}  // namespace

void Pauses::Load() {
    const std::lock_guard<std::mutex> lock(mutex_);
    pauses_.clear();
    std::string text;
    Json::Value all;
    if (SDK::FileUtils::ReadFile(File(), text, kMostBytes) == 0 &&
        JsonUtils::ParseJsonStr(text.data(), text.size(), all) == 0 && all.isArray()) {
        for (const Json::Value& one : all) {
            Pause pause;
            if (!SDK::PercentDecode(JsonUtils::GetStringValue(one, "path", "%"), pause.real_path)) {
                continue;
            }
            SDK::PercentDecode(JsonUtils::GetStringValue(one, "reason", ""), pause.reason);
            pause.user = one["user"].isUInt() ? one["user"].asUInt() : 0;
            pause.process = JsonUtils::GetIntValue(one, "process", 0);
            pause.begun = one["begun"].isInt64() ? one["begun"].asInt64() : 0;
            pause.until = one["until"].isInt64() ? one["until"].asInt64() : 0;
            pauses_[pause.real_path] = pause;
        }
    }
    has_any_ = !pauses_.empty();
}

int Pauses::Write() const {
    Json::Value all(Json::arrayValue);
    for (const auto& [path, pause] : pauses_) {
        all.append(Object(pause, SDK::PercentEncode(path), SDK::PercentEncode(pause.reason)));
    }
    return SDK::FileUtils::WriteFile(File(), JsonUtils::JsonToString(all), false);
}

Json::Value Pauses::Begin(const Json::Value& request, const SentrelDirRule& rule) {
    Pause pause;
    pause.real_path = rule.real_path;
    pause.reason = JsonUtils::GetStringValue(request, "reason", "");
    pause.user = request["uid"].isUInt() ? request["uid"].asUInt() : static_cast<uid_t>(-1);
    pause.process = request["pid"].isInt() ? request["pid"].asInt() : 0;
    pause.begun = std::time(nullptr);
    const int seconds = JsonUtils::GetIntValue(request, "seconds", kDefaultSeconds);
    pause.until = pause.begun + std::clamp(seconds, kLeastSeconds, kMostSeconds);
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::map<std::string, Pause> before = pauses_;
    pauses_[pause.real_path] = pause;
    if (Write() != 0) {
        const int error = errno;
        pauses_ = before;
        return Error("Cannot write " + File() + ": " + std::strerror(error) + ".");
    }
    has_any_ = true;
    SDK_LOG(ModuleLogger(), PRIO_NOTICE, "%s pauses: nothing is undone (user %s, process %s) %s.",
            pause.real_path, std::to_string(pause.user), std::to_string(pause.process),
            pause.reason);
    Json::Value answer(Json::objectValue);
    answer["path"] = SDK::PercentEncode(pause.real_path);
    answer["until"] = static_cast<Json::Int64>(pause.until);
    return answer;
}

Json::Value Pauses::End(const SentrelDirRule& rule) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::map<std::string, Pause> before = pauses_;
    if (pauses_.erase(rule.real_path) == 0) return Error(rule.real_path + " does not pause.");
    if (Write() != 0) {
        const int error = errno;
        pauses_ = before;
        return Error("Cannot write " + File() + ": " + std::strerror(error) + ".");
    }
    has_any_ = !pauses_.empty();
    SDK_LOG(ModuleLogger(), PRIO_NOTICE, "the pause of %s has ended.", rule.real_path);
    Json::Value answer(Json::objectValue);
    answer["path"] = SDK::PercentEncode(rule.real_path);
    return answer;
}

bool Pauses::IsPaused(const SentrelDirRule& rule) const {
    if (!has_any_) return false;
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = pauses_.find(rule.real_path);
    return known != pauses_.end() && std::time(nullptr) < known->second.until;
}

std::vector<Pauses::Pause> Pauses::EndDue(std::int64_t now) {
    std::vector<Pause> ended;
    if (!has_any_) return ended;
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto one = pauses_.begin(); one != pauses_.end();) {
        if (now < one->second.until) {
            ++one;
            continue;
        }
        ended.push_back(one->second);
        one = pauses_.erase(one);
    }
    if (ended.empty()) return ended;
    Write();
    has_any_ = !pauses_.empty();
    return ended;
}

Json::Value Pauses::ToJson() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    Json::Value all(Json::arrayValue);
    for (const auto& [path, pause] : pauses_) all.append(Object(pause, path, pause.reason));
    return all;
}

}  // namespace Engine
