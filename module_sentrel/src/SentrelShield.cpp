// Tells the sentry what it may shield now, and answers what operators ask about it. It must not
// open files of a site. Any thread.
#define SDK_LOG_FILE "SentrelModule.cpp"
#include <baseline/ManifestEntry.h>
#include <fcntl.h>
#include <framework/Engine.h>
#include <framework/RunSoon.h>
#include <sdk/log/Log.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>
#include <sdk/text/StrUtils.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "SentrelModule.h"
#include "base/ModuleLogger.h"
#include "feature_sentrel/SentrelInotifyTask.h"
#include "utils/SentrelUtils.h"

namespace Engine {

using SDK::JsonUtils;

namespace {

constexpr int kWaitMs = 500;
constexpr std::size_t kMostHeld = 256;  // the sentry is told each

Json::Value Encoded(const std::string& text) {
    return SDK::PercentEncode(text);
}

std::string Decoded(const Json::Value& object, const char* key) {
    std::string text;
    return SDK::PercentDecode(JsonUtils::GetStringValue(object, key, ""), text) ? text : "";
}

}  // namespace

/// Why a directory must not be shielded at this moment; else empty.
std::string SentrelModule::WhyNotShielded(const SentrelDirRule& rule) const {
    if (!rule.auto_restore || state_.status.IsMonitorOnly()) return "changes are only reported";
    if (!SentrelUtils::GetInstance()->is_run) return "the protection pauses by its schedule";
    if (state_.pauses.IsPaused(rule)) return "a pause is open";
    if (state_.deploys.IsOpen(rule)) return "a deploy is open";
    if (state_.shield.IsSuspended()) return "the approved state is changing";
    if (!state_.progress.IsComplete(rule) || state_.baselines.GenerationOf(rule) == 0) {
        return "there is no approved state yet";
    }
    if (state_.progress.IsChecking(rule)) return "it is being compared with its approved state";
    return state_.progress.HeldCount(rule) > kMostHeld ? "too many changes in it are held" : "";
}

Json::Value SentrelModule::ShieldRules() const {
    Json::Value all(Json::arrayValue);
    const std::vector<SentrelDirRule> rules = state_.status.Rules();
    for (const SentrelDirRule& rule : rules) {
        const std::string mode = state_.shield.ModeOf(rule.real_path);
        if (rule.is_file || mode == "off" || !WhyNotShielded(rule).empty()) continue;
        Json::Value one(Json::objectValue);
        one["path"] = Encoded(rule.real_path);
        one["backup"] = Encoded(rule.backup_path);
        one["mode"] = mode;
        one["generation"] = state_.baselines.GenerationOf(rule);
        one["prefixes"] = Json::Value(Json::arrayValue);
        one["suffixes"] = Json::Value(Json::arrayValue);
        one["held"] = Json::Value(Json::arrayValue);
        for (const std::string& below : state_.progress.HeldPaths(rule, kMostHeld)) {
            one["held"].append(Encoded(below));
        }
        for (const std::string& subdir : rule.ignored_subdir) {
            one["prefixes"].append(Encoded(rule.real_path + subdir));
        }
        for (const SentrelDirRule& other : rules) {
            const bool is_inside = other.real_path != rule.real_path &&
                                   SDK::StrUtils::BeginsWith(other.real_path, rule.real_path);
            if (is_inside) one["prefixes"].append(Encoded(other.real_path));
        }
        for (const std::string& suffix : rule.ignored_postfix) {
            one["suffixes"].append(Encoded(suffix));
        }
        all.append(std::move(one));
    }
    return all;
}

/// Tells the sentry the rules; waits until it has them if `must_wait`.
void SentrelModule::PublishShield(bool must_wait) {
    Json::Value request(Json::objectValue);
    request["op"] = "shield.rules";
    request["rules"] = ShieldRules();
    request["serial"] = static_cast<Json::UInt64>(state_.shield.SerialOf(request["rules"]));
    request["wait_ms"] = must_wait ? kWaitMs : 0;
    Json::Value ignored;
    Framework::Engine::Instance().Queries().Ask("sentry.request", request, ignored);
}

/// What is approved changes soon: the sentry must not put it back.
void SentrelModule::SuspendShield(std::chrono::milliseconds time) {
    state_.shield.Suspend(time);
    PublishShield(true);
}

/// `sentry` is what the sentry said of itself last.
Json::Value SentrelModule::TickShield(const Json::Value& sentry) {
    const Json::UInt64 serial = state_.shield.SerialOf(ShieldRules());
    const Json::Value& known = sentry["shield"]["serial"];
    if (!known.isUInt64() || known.asUInt64() != serial) PublishShield(false);
    return Json::Value(Json::objectValue);
}

/// An event of the sentry; its file is borrowed.
Json::Value SentrelModule::TakeShieldEvent(const Json::Value& event) {
    Shield::Told told;
    told.real_path = Decoded(event, "rule");
    told.healed = Decoded(event, "path");
    told.trouble = JsonUtils::GetStringValue(event, "what", "");
    const int file = JsonUtils::GetIntValue(event, "file", -1);
    if (file >= 0) told.content.Reset(::fcntl(file, F_DUPFD_CLOEXEC, 0));
    state_.shield.Tell(std::move(told));
    if (m_pInotifyTask != nullptr) Framework::RunSoon(*m_pInotifyTask);
    return Json::Value(Json::objectValue);
}

/// {"sentry": {"state","why"}, "paths": [{"path","mode","in_force","why", counts}]}
Json::Value SentrelModule::ListShield() const {
    Json::Value status;
    Framework::Engine::Instance().Queries().Ask("status.sentry", Json::Value(Json::objectValue),
                                                status);
    Json::Value sentry = status["sentry"];
    Json::Value request(Json::objectValue);
    request["op"] = "status";
    request["wait_ms"] = kWaitMs;
    Json::Value fresh;
    Framework::Engine::Instance().Queries().Ask("sentry.request", request, fresh);
    if (fresh["answer"]["shield"].isObject()) sentry["shield"] = fresh["answer"]["shield"];
    Json::Value answer(Json::objectValue);
    answer["sentry"]["state"] = JsonUtils::GetStringValue(sentry, "state", "off");
    answer["sentry"]["why"] = JsonUtils::GetStringValue(sentry, "why", "");
    answer["sentry"]["untold"] = sentry["shield"].get("untold", 0);
    answer["paths"] = Json::Value(Json::arrayValue);
    for (const SentrelDirRule& rule : state_.status.Rules()) {
        Json::Value one(Json::objectValue);
        for (const Json::Value& known : sentry["shield"]["paths"]) {
            if (known["path"] == Encoded(rule.real_path)) one = known;
        }
        one["in_force"] = JsonUtils::GetStringValue(one, "mode", "off");
        one["mode"] = state_.shield.ModeOf(rule.real_path);
        one["path"] = Encoded(rule.real_path);
        one["why"] = one["mode"] == "off" ? "" : WhyNotShielded(rule);
        answer["paths"].append(std::move(one));
    }
    return answer;
}

Json::Value SentrelModule::AnswerShield(const Json::Value& request) {
    const std::string action = JsonUtils::GetStringValue(request, "action", "");
    if (action == "list") return ListShield();
    Json::Value answer(Json::objectValue);
    if (action != "set") {
        answer["error"] = "There is no such action.";
        return answer;
    }
    const std::string mode = JsonUtils::GetStringValue(request, "mode", "");
    const std::optional<SentrelDirRule> rule = RuleOf(state_.status, request);
    if (!rule || rule->is_file || !Shield::IsMode(mode)) {
        answer["error"] = !rule ? "No protected directory holds this path."
                          : rule->is_file
                              ? "Only a directory can be shielded, and this rule is about one file."
                              : "The mode is off, monitor, heal or deny.";
        return answer;
    }
    if (state_.shield.SetMode(rule->real_path, mode) != 0) {
        answer["error"] = std::string("The mode cannot be kept: ") + std::strerror(errno) + ".";
        return answer;
    }
    SDK_LOG(ModuleLogger(), PRIO_NOTICE, "the shield of %s is set to %s.", rule->real_path, mode);
    PublishShield(true);
    return ListShield();
}

}  // namespace Engine
