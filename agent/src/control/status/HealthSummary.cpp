// Owns the joined reasons. It must not know what a module protects (modules answer that). Runs on
// the control API's threads.
#include "control/status/HealthSummary.h"

#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <array>

namespace Agent {

using SDK::JsonUtils;

namespace {

constexpr std::array<const char*, 3> kStates = {"healthy", "degraded", "off"};
constexpr int kDegraded = 1;
constexpr int kOff = 2;

/// An unknown state counts as degraded.
int IndexOf(const std::string& state) {
    const auto* found = std::find(kStates.begin(), kStates.end(), state);
    return found == kStates.end() ? kDegraded : static_cast<int>(found - kStates.begin());
}

Json::Value Reason(const char* code, const std::string& text) {
    Json::Value reason(Json::objectValue);
    reason["code"] = code;
    reason["text"] = text;
    reason["path"] = "";
    return reason;
}

}  // namespace

void HealthSummary::Add(const Json::Value& health) {
    if (!health.isObject() || !health["state"].isString()) return;
    is_answered_ = true;
    state_ = std::max(state_, IndexOf(health["state"].asString()));
    if (!health["reasons"].isArray()) return;
    for (const Json::Value& reason : health["reasons"]) {
        if (reason.isObject()) others_.append(reason);
    }
}

void HealthSummary::AddOwn(const char* code, const std::string& text) {
    state_ = std::max(state_, kDegraded);
    own_.append(Reason(code, text));
}

void HealthSummary::AddFromDocument(const Json::Value& status) {
    for (const Json::Value& module : status["modules"]) {
        if (JsonUtils::GetStringValue(module, "state", "") != "failed") continue;
        AddOwn("module_failed",
               "module " + JsonUtils::GetStringValue(module, "name", "") +
                   " is not used: " + JsonUtils::GetStringValue(module, "error", ""));
    }
    for (const Json::Value& policy : status["policies"]) {
        if (JsonUtils::GetStringValue(policy, "state", "") != "failed") continue;
        const Json::Value& rejection = policy["last_rejection"];
        AddOwn("policy_failed",
               "the policy of " + JsonUtils::GetStringValue(policy, "feature", "") +
                   " could not be applied: " + JsonUtils::GetStringValue(rejection, "message", ""));
    }
    for (const Json::Value& task : status["tasks"]) {
        const std::string id = JsonUtils::GetStringValue(task, "id", "");
        if (JsonUtils::GetStringValue(task, "state", "") == "stalled") {
            AddOwn("task_stalled", "task " + id + " is stalled");
        }
        if (JsonUtils::GetBoolValue(task, "init_failed", false)) {
            AddOwn("task_init_failed", "task " + id + " could not start in full; see the log");
        }
    }
    for (const Json::Value& channel : status["notifications"]) {
        if (!JsonUtils::GetBoolValue(channel, "degraded", false)) continue;
        AddOwn("notification_failing",
               "notifications by " + JsonUtils::GetStringValue(channel, "channel", "") +
                   " do not arrive: " + JsonUtils::GetStringValue(channel, "last_error", ""));
    }
}

Json::Value HealthSummary::ToJson() const {
    Json::Value health(Json::objectValue);
    health["state"] = kStates.at(static_cast<std::size_t>(is_answered_ ? state_ : kOff));
    Json::Value& reasons = health["reasons"] = own_;
    for (const Json::Value& reason : others_) reasons.append(reason);
    if (!is_answered_) {
        reasons.append(Reason("no_protection_module", "no module that protects paths is loaded"));
    }
    return health;
}

}  // namespace Agent
