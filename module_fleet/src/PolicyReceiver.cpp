// Owns the documents that wait and the record of what was taken. Must not know what a policy means:
// the agent checks and applies it (queries "policy.submit" and "policy.outcome"). Runs on the
// worker's thread.
#include "PolicyReceiver.h"

#include <fleet/SignedPolicy.h>
#include <fleet/Topics.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/Sha256.h>
#include <sdk/log/Log.h>
#include <sdk/text/JsonUtils.h>

#include <utility>

#include "FleetLog.h"

namespace Engine {

using SDK::JsonUtils;

namespace {

constexpr std::size_t kMostFeatures = 16;
constexpr std::int64_t kLeastDistanceMs = 200;
constexpr std::int64_t kTellDistanceMs = 60'000;
constexpr long kMostFileBytes = 1024 * 1024;
constexpr Json::ArrayIndex kMostMessages = 20;
constexpr const char* kPending = "pending";

std::string DigestOf(const std::string& document) {
    SDK::Sha256 digest;
    digest.Update(document.data(), document.size());
    return digest.Hex();
}

Json::Value First(const Json::Value& messages) {
    Json::Value some(Json::arrayValue);
    for (const Json::Value& message : messages) {
        if (some.size() < kMostMessages) some.append(message);
    }
    return some;
}

}  // namespace

PolicyReceiver::PolicyReceiver(Fleet::Identity host, std::shared_ptr<const SDK::SigningKey> key,
                               std::string file, Ask ask, Answer answer, TellRefusal tell_refusal)
    : host_(std::move(host)),
      key_(std::move(key)),
      file_(std::move(file)),
      ask_(std::move(ask)),
      answer_(std::move(answer)),
      tell_refusal_(std::move(tell_refusal)) {
    Load();
}

void PolicyReceiver::Load() {
    std::string text;
    if (SDK::FileUtils::ReadFile(file_, text, kMostFileBytes) != 0) return;
    Json::Value read;
    if (JsonUtils::ParseJsonStr(text.data(), text.size(), read) == 0 && read.isObject()) {
        taken_ = read;
        return;
    }
    // Without the record an older policy would count as new.
    SDK_LOG(FleetLog(), PRIO_ERROR, "%s cannot be read: no policies are taken from the fleet",
            file_);
    taken_ = Json::Value();
}

bool PolicyReceiver::Save() const {
    return SDK::FileUtils::WriteFile(file_, JsonUtils::JsonToString(taken_) + "\n", false) == 0;
}

void PolicyReceiver::Take(const std::string& feature, std::string&& document) {
    if (document.empty()) return;  // the retained document was removed
    if (waiting_.size() >= kMostFeatures && waiting_.count(feature) == 0) return;
    waiting_[feature] = std::move(document);
}

void PolicyReceiver::Work(std::int64_t now_ms) {
    if (!running_.feature.empty()) return Finish();
    if (waiting_.empty() || now_ms - examined_ms_ < kLeastDistanceMs) return;
    examined_ms_ = now_ms;
    const auto next = waiting_.extract(waiting_.begin());
    Examine(next.key(), next.mapped(), now_ms);
}

void PolicyReceiver::Examine(const std::string& feature, const std::string& document,
                             std::int64_t now_ms) {
    Json::Value result(Json::objectValue);
    result["sha256"] = DigestOf(document);
    Fleet::SignedPolicy policy;
    std::string error;
    if (key_ == nullptr)
        return Refuse(feature, result, "this host has no fleet.policy_key", now_ms);
    if (!taken_.isObject()) return Refuse(feature, result, file_ + " is unreadable", now_ms);
    if (!Fleet::ReadSigned(document, *key_, policy, error)) {
        return Refuse(feature, result, error, now_ms);
    }
    result["version"] = Json::Int64{policy.version};
    if (policy.feature != feature) {
        return Refuse(feature, result, "it is signed for the feature " + policy.feature, now_ms);
    }
    if (!Fleet::IsFor(policy.hosts, host_)) {
        return Refuse(feature, result, "it is signed for other hosts", now_ms);
    }
    if (IsTaken(feature, result)) return;
    const Json::Value& last = taken_[feature];
    if (last.isObject() && last["version"].isInt64() && last["sha256"] != result["sha256"] &&
        policy.version <= last["version"].asInt64()) {
        return Refuse(
            feature, result,
            "its version is not greater than that of the last one, " + last["version"].asString(),
            now_ms);
    }
    if (!Submit(feature, policy.text, result)) waiting_.emplace(feature, document);
}

/// The broker sends the retained document with each connection. One that was applied to its end is
/// answered again; one that was interrupted is applied again.
bool PolicyReceiver::IsTaken(const std::string& feature, const Json::Value& result) {
    const Json::Value& last = taken_[feature];
    if (!last.isObject() || last["sha256"] != result["sha256"]) return false;
    if (JsonUtils::GetStringValue(last, "verdict", "") == kPending) return false;
    answer_(feature, last);
    return true;
}

void PolicyReceiver::Refuse(const std::string& feature, Json::Value result, const std::string& why,
                            std::int64_t now_ms) {
    ++refused_;
    result["verdict"] = "refused";
    result["reason"] = why;
    const std::string digest = result["sha256"].asString();
    answer_(feature, result);
    if (digest == last_refused_ || (told_ms_ != 0 && now_ms - told_ms_ < kTellDistanceMs)) return;
    last_refused_ = digest;
    told_ms_ = now_ms;
    SDK_LOG(FleetLog(), PRIO_WARNING, "a policy of %s from the fleet is refused: %s", feature, why);
    tell_refusal_(feature, why);
}

/// Kept before it is applied, so that no crash lets an older one in.
bool PolicyReceiver::Submit(const std::string& feature, const std::string& text,
                            const Json::Value& result) {
    Json::Value request(Json::objectValue);
    request["feature"] = feature;
    request["text"] = text;
    const Json::Value before = taken_[feature];
    taken_[feature] = result;
    taken_[feature]["verdict"] = kPending;
    Json::Value answer;
    if (Save() && ask_("policy.submit", request, answer) && answer["ticket"].isInt64()) {
        running_ = {feature, answer["ticket"], result};
        SDK_LOG(FleetLog(), PRIO_NOTICE, "policy of %s, version %s, arrived from the fleet",
                feature, result["version"].asString());
        return true;
    }
    taken_[feature] = before;
    return false;
}

void PolicyReceiver::Finish() {
    Json::Value request(Json::objectValue);
    request["ticket"] = running_.ticket;
    Json::Value outcome;
    if (!ask_("policy.outcome", request, outcome)) return;
    const bool is_known = !outcome.isMember("error");
    if (is_known && !JsonUtils::GetBoolValue(outcome, "done", false)) return;
    Json::Value& result = running_.result;
    result["verdict"] = JsonUtils::GetStringValue(outcome, "state", "rejected");
    result["errors"] = First(outcome["errors"]);
    result["warnings"] = First(outcome["warnings"]);
    taken_[running_.feature] = result;
    if (!Save()) {
        SDK_LOG(FleetLog(), PRIO_ERROR, "%s cannot be written", file_);
    }
    answer_(running_.feature, result);
    running_ = {};
}

}  // namespace Engine
