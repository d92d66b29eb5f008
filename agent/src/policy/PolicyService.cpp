// Owns the state of each feature's policy, and the order check, apply, store. Must not know what a
// policy means: its module checks it, the framework applies it. Runs on the control API's threads
// and, at the start, on the main thread.
#include "policy/PolicyService.h"

#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>
#include <sdk/time/TimeUtils.h>

#include <algorithm>

namespace Agent {

namespace {

Poco::Logger* Log() {
    return SDK::LoggerUtils::GetInstance()->GetRootLogger();
}

Json::Value Message(const std::string& text) {
    Json::Value message;
    message["pointer"] = "";
    message["message"] = text;
    return message;
}

PolicyVerdict Rejected(const std::string& reason) {
    PolicyVerdict verdict;
    verdict.errors.append(Message(reason));
    return verdict;
}

std::string FirstError(const PolicyVerdict& verdict) {
    if (verdict.errors.empty()) return "";
    const Json::Value& first = verdict.errors[0];
    const std::string pointer = first["pointer"].asString();
    return (pointer.empty() ? "" : pointer + ": ") + first["message"].asString();
}

std::string Joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text.empty() ? "none" : text;
}

/// Appends the usable items of the module's list: objects with two strings.
void AppendMessages(const Json::Value& from, Json::Value& to) {
    if (!from.isArray()) return;
    for (const Json::Value& item : from) {
        if (!item.isObject() || !item["message"].isString()) continue;
        Json::Value message = Message(item["message"].asString());
        if (item["pointer"].isString()) message["pointer"] = item["pointer"];
        to.append(message);
    }
}

}  // namespace

const char* ToText(PolicyState state) {
    switch (state) {
        case PolicyState::kOn:
            return "on";
        case PolicyState::kOff:
            return "off";
        case PolicyState::kRejected:
            break;
    }
    return "rejected";
}

PolicyService::PolicyService(PolicyHost& host, const PolicyStore& store)
    : host_(host), store_(store) {}

PolicyVerdict PolicyService::Check(const std::string& feature, const std::string& text) {
    return Check(feature, text, PolicyHost::Scope::kAll);
}

PolicyVerdict PolicyService::Check(const std::string& feature, const std::string& text,
                                   PolicyHost::Scope scope) {
    if (!IsFeatureName(feature)) return Rejected("This is not a name that a feature can have.");
    if (!IsKnown(feature)) {
        return Rejected("No module handles the feature " + feature +
                        "; known: " + Joined(host_.Features()) + ".");
    }
    Json::Value answer;
    if (!host_.Check(feature, text, scope, answer)) {
        return Rejected("The module failed to check the policy; the agent's log says why.");
    }
    PolicyVerdict verdict;
    AppendMessages(answer["errors"], verdict.errors);
    AppendMessages(answer["warnings"], verdict.warnings);
    if (verdict.errors.empty()) verdict.state = PolicyState::kOn;
    return verdict;
}

PolicyVerdict PolicyService::Apply(const std::string& feature, const std::string& text) {
    std::lock_guard<std::mutex> one_at_a_time(apply_mutex_);
    PolicyVerdict verdict = Check(feature, text, PolicyHost::Scope::kToApply);
    if (verdict.errors.empty()) verdict = ApplyChecked(feature, text, std::move(verdict));
    if (verdict.state == PolicyState::kRejected) RecordRejected(feature, verdict);
    SDK_LOG(Log(), PRIO_NOTICE, "policy of %s: %s%s", feature, std::string(ToText(verdict.state)),
            verdict.errors.empty() ? std::string() : ", " + FirstError(verdict));
    return verdict;
}

PolicyVerdict PolicyService::ApplyChecked(const std::string& feature, const std::string& given,
                                          PolicyVerdict verdict) {
    std::string last;
    store_.Load(feature, last);
    const std::string text = last.empty() ? given : host_.Completed(feature, given, last);
    if (text != given) {
        PolicyVerdict whole = Check(feature, text);
        if (!whole.errors.empty()) return whole;
    }
    const Attempt attempt = Try(feature, text, Framework::PolicyOrigin::kOperator);
    verdict.state = attempt.state;
    if (attempt.state == PolicyState::kRejected) {
        verdict.errors.append(Message(attempt.reason + " " + RestoreLastGood(feature)));
        return verdict;
    }
    RecordAccepted(feature, attempt.state);
    std::string error;
    if (!store_.Save(feature, text, error)) {
        verdict.warnings.append(
            Message("The policy is in force but could not be kept for the next "
                    "start of the agent: " +
                    error + "."));
    }
    return verdict;
}

PolicyService::Attempt PolicyService::Try(const std::string& feature, const std::string& text,
                                          Framework::PolicyOrigin origin) {
    const Framework::PolicyOutcome outcome = host_.Apply(feature, text, origin);
    if (!outcome.exception.empty()) {
        return {PolicyState::kRejected,
                "Applying the policy ended with an exception: " + outcome.exception + "."};
    }
    if (!outcome.handled) {
        return {PolicyState::kRejected, "No module took the policy."};
    }
    if (!outcome.rejection.empty()) {
        return {PolicyState::kRejected, "The module refused it: " + outcome.rejection};
    }
    return {outcome.result != 0 ? PolicyState::kOn : PolicyState::kOff, ""};
}

std::string PolicyService::RestoreLastGood(const std::string& feature) {
    std::string text;
    if (!store_.Load(feature, text)) {
        if (!Show(feature).isNull()) RecordFailed(feature);
        return "The feature is off, as there is no earlier policy.";
    }
    const PolicyVerdict verdict = Reapply(feature);
    if (verdict.state == PolicyState::kRejected) {
        SDK_LOG(Log(), PRIO_ERROR, "the last good policy of %s was not taken again: %s", feature,
                FirstError(verdict));
        RecordFailed(feature);
        return "The last good policy could not be put into force again: " + FirstError(verdict);
    }
    RecordAccepted(feature, verdict.state);
    return "The last good policy is in force again.";
}

void PolicyService::ReapplyStored() {
    std::lock_guard<std::mutex> one_at_a_time(apply_mutex_);
    for (const std::string& feature : store_.Features()) {
        if (is_stopping_) return;
        const PolicyVerdict verdict = Reapply(feature);
        if (verdict.state == PolicyState::kRejected) {
            SDK_LOG(Log(), PRIO_ERROR, "the kept policy of %s was not applied: %s", feature,
                    FirstError(verdict));
            RecordFailed(feature);
            RecordRejected(feature, verdict);
        } else {
            SDK_LOG(Log(), PRIO_NOTICE, "the kept policy of %s is applied: %s", feature,
                    std::string(ToText(verdict.state)));
            RecordAccepted(feature, verdict.state);
        }
    }
}

std::map<std::string, PolicyVerdict> PolicyService::CheckStored() {
    std::map<std::string, PolicyVerdict> verdicts;
    for (const std::string& feature : store_.Features()) {
        std::string text;
        verdicts[feature] = store_.Load(feature, text)
                                ? Check(feature, text)
                                : Rejected("The kept policy cannot be read.");
    }
    return verdicts;
}

/// Checks only the places: the policy was good once, and a missing directory must not disable the
/// rest of it. But nothing may be restored from a place that others can write to.
PolicyVerdict PolicyService::Reapply(const std::string& feature) {
    std::string text;
    if (!store_.Load(feature, text)) return Rejected("The kept policy cannot be read.");
    PolicyVerdict verdict = Check(feature, text, PolicyHost::Scope::kPlaces);
    for (const Json::Value& warning : verdict.warnings) {
        SDK_LOG(Log(), PRIO_ERROR, "policy of %s: %s", feature, warning["message"].asString());
    }
    if (!verdict.errors.empty()) return verdict;
    const Attempt attempt = Try(feature, text, Framework::PolicyOrigin::kKept);
    verdict.state = attempt.state;
    if (attempt.state == PolicyState::kRejected) verdict.errors.append(Message(attempt.reason));
    return verdict;
}

bool PolicyService::IsKnown(const std::string& feature) const {
    const std::vector<std::string> known = host_.Features();
    return std::find(known.begin(), known.end(), feature) != known.end();
}

void PolicyService::RecordAccepted(const std::string& feature, PolicyState state) {
    std::lock_guard<std::mutex> lock(state_mutex_);
    Entry& entry = entries_[feature];
    entry.state = ToText(state);
    entry.applied_at = SDK::TimeUtils::GetCurrentTimestampS();
    entry.rejected_at = 0;
}

void PolicyService::RecordFailed(const std::string& feature) {
    std::lock_guard<std::mutex> lock(state_mutex_);
    entries_[feature].state = "failed";
}

void PolicyService::RecordRejected(const std::string& feature, const PolicyVerdict& verdict) {
    std::lock_guard<std::mutex> lock(state_mutex_);
    // Only for features with a policy, so that nobody can fill the memory with names.
    const auto found = entries_.find(feature);
    if (found == entries_.end()) return;
    Entry& entry = found->second;
    entry.rejected_at = SDK::TimeUtils::GetCurrentTimestampS();
    entry.rejection = FirstError(verdict);
}

Json::Value PolicyService::Describe(const std::string& feature, const Entry& entry) {
    Json::Value policy;
    policy["feature"] = feature;
    policy["state"] = entry.state;
    policy["applied_at"] = static_cast<Json::Int64>(entry.applied_at);
    if (entry.rejected_at != 0) {
        policy["last_rejection"]["at"] = static_cast<Json::Int64>(entry.rejected_at);
        policy["last_rejection"]["message"] = entry.rejection;
    }
    return policy;
}

Json::Value PolicyService::List() const {
    Json::Value list(Json::arrayValue);
    std::lock_guard<std::mutex> lock(state_mutex_);
    for (const auto& [feature, entry] : entries_) list.append(Describe(feature, entry));
    return list;
}

Json::Value PolicyService::Show(const std::string& feature) const {
    Json::Value policy;
    {
        std::lock_guard<std::mutex> lock(state_mutex_);
        const auto found = entries_.find(feature);
        if (found == entries_.end()) return Json::nullValue;
        policy = Describe(feature, found->second);
    }
    std::string text;
    if (store_.Load(feature, text)) policy["text"] = text;
    return policy;
}

}  // namespace Agent
