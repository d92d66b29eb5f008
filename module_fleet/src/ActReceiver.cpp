// Owns the acts that wait and the record of what was taken. Must not know what an act means
// (ActRunner does). Runs on the worker's thread.
#include "ActReceiver.h"

#include <sdk/files/FileUtils.h>
#include <sdk/files/Sha256.h>
#include <sdk/log/Log.h>
#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <charconv>
#include <utility>
#include <vector>

#include "FleetLog.h"

namespace Engine {

using SDK::JsonUtils;

namespace {

constexpr std::size_t kMostWaiting = 64;
constexpr std::size_t kMostWaitingBytes = 8UL * 1024 * 1024;
constexpr std::size_t kMostKept = 64;
constexpr std::int64_t kLeastDistanceMs = 200;
constexpr std::int64_t kTellDistanceMs = 60'000;
constexpr std::int64_t kToleratedSkewS = 120;
constexpr long kMostFileBytes = 4L * 1024 * 1024;
constexpr const char* kPending = "pending";

std::string DigestOf(const std::string& document) {
    SDK::Sha256 digest;
    digest.Update(document.data(), document.size());
    return digest.Hex();
}

/// 0: it is none.
std::int64_t NumberOf(const std::string& text) {
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && at == end && number > 0 ? number : 0;
}

std::int64_t LastOf(const Json::Value& taken) {
    return taken["last"].isInt64() ? taken["last"].asInt64() : 0;
}

}  // namespace

ActReceiver::ActReceiver(Fleet::Identity host, std::shared_ptr<const SDK::SigningKey> key,
                         std::string file, std::unique_ptr<ActRunner> runner, Hooks hooks)
    : host_(std::move(host)),
      key_(std::move(key)),
      file_(std::move(file)),
      runner_(std::move(runner)),
      hooks_(std::move(hooks)) {
    Load();
}

void ActReceiver::Load() {
    std::string text;
    taken_["acts"] = Json::Value(Json::objectValue);
    if (SDK::FileUtils::ReadFile(file_, text, kMostFileBytes) != 0) return;
    Json::Value read;
    if (JsonUtils::ParseJsonStr(text.data(), text.size(), read) != 0 || !read.isObject() ||
        !read["last"].isInt64() || !read["acts"].isObject()) {
        // Without the record an act could be carried out once more.
        SDK_LOG(FleetLog(), PRIO_ERROR, "%s cannot be read: no acts are taken from the fleet",
                file_);
        taken_ = Json::Value();
        return;
    }
    taken_ = read;
    for (Json::Value& result : taken_["acts"]) {
        if (!result.isObject() || result["verdict"] != kPending) continue;
        result["verdict"] = "failed";
        result["message"] = "The agent ended before the act did; it may be done in part.";
    }
}

bool ActReceiver::Save() const {
    return SDK::FileUtils::WriteFile(file_, JsonUtils::JsonToString(taken_) + "\n", false) == 0;
}

void ActReceiver::Take(const std::string& number, std::string&& document, bool is_retained) {
    const std::int64_t value = NumberOf(number);
    std::size_t bytes = document.size();
    for (const auto& [other, waiting] : waiting_) bytes += waiting.document.size();
    const bool is_too_much = waiting_.size() >= kMostWaiting || bytes > kMostWaitingBytes;
    if (value == 0 || document.empty() || is_too_much) {
        ++refused_;
        return;
    }
    waiting_[value] = {std::move(document), is_retained};
}

void ActReceiver::Work(std::int64_t now_ms, std::int64_t now_s) {
    if (runner_->IsBusy()) {
        const auto outcome = runner_->Poll();
        if (outcome) Finish(*outcome, now_s);
        return;
    }
    if (waiting_.empty() || now_ms < settled_ms_ || now_ms - examined_ms_ < kLeastDistanceMs) {
        return;
    }
    examined_ms_ = now_ms;
    const auto next = waiting_.extract(waiting_.begin());
    Examine(next.key(), next.mapped(), now_ms, now_s);
}

void ActReceiver::Examine(std::int64_t number, const Waiting& waiting, std::int64_t now_ms,
                          std::int64_t now_s) {
    Json::Value result(Json::objectValue);
    result["number"] = Json::Int64{number};
    result["sha256"] = DigestOf(waiting.document);
    result["host_s"] = Json::Int64{now_s};
    if (key_ == nullptr) return Refuse(number, result, "this host has no fleet.policy_key", now_ms);
    if (!taken_.isObject()) return Refuse(number, result, file_ + " is unreadable", now_ms);
    if (IsKnown(number, result["sha256"].asString(), waiting.is_retained, now_ms)) return;
    Fleet::SignedAct act;
    std::string error;
    if (!Fleet::ReadSigned(waiting.document, *key_, act, error)) {
        return Refuse(number, result, error, now_ms);
    }
    result["act"] = act.name;
    result["signer"] = act.signer;
    result["issued_s"] = Json::Int64{act.issued_s};
    error = WhyNot(act, number, now_s);
    if (!error.empty()) return Refuse(number, result, error, now_ms);
    Begin(act, result);
}

/// Answers an act of that number once more. A document that somebody publishes again, or another
/// one of that number, is reported.
bool ActReceiver::IsKnown(std::int64_t number, const std::string& digest, bool is_retained,
                          std::int64_t now_ms) {
    const std::string key = std::to_string(number);
    const Json::Value& known = taken_["acts"][key];
    if (!known.isObject()) return false;
    hooks_.answer(key, known);
    const bool is_same = known["sha256"] == digest;
    if (is_same && is_retained) return true;
    Report(key, is_same ? "it was carried out already" : "another act has this number", now_ms);
    return true;
}

/// Why the signed act is not carried out here and now; else empty.
std::string ActReceiver::WhyNot(const Fleet::SignedAct& act, std::int64_t number,
                                std::int64_t now_s) const {
    if (act.number != number) return "it is signed for the number " + std::to_string(act.number);
    if (!Fleet::IsFor(act.hosts, host_)) return "it is signed for other hosts";
    if (number <= LastOf(taken_)) {
        return "its number is not greater than that of the last one, " +
               std::to_string(LastOf(taken_));
    }
    const std::string clocks = " by the clock of this host";
    if (act.issued_s > now_s + kToleratedSkewS) {
        return "it was signed " + std::to_string(act.issued_s - now_s) + " s in the future" +
               clocks;
    }
    if (act.expires_s > now_s) return "";
    return "it expired " + std::to_string(now_s - act.expires_s) + " s ago" + clocks;
}

void ActReceiver::Refuse(std::int64_t number, Json::Value result, const std::string& why,
                         std::int64_t now_ms) {
    const std::string key = std::to_string(number);
    result["verdict"] = "refused";
    result["message"] = "This host refuses the act: " + why + ".";
    hooks_.answer(key, result);
    Report(key, why, now_ms);
}

void ActReceiver::Report(const std::string& number, const std::string& why, std::int64_t now_ms) {
    ++refused_;
    if (told_ms_ != 0 && now_ms - told_ms_ < kTellDistanceMs) return;
    told_ms_ = now_ms;
    SDK_LOG(FleetLog(), PRIO_WARNING, "the act %s from the fleet is refused: %s", number, why);
    hooks_.tell_refusal(number, why);
}

/// Kept before it is carried out, so that no crash lets it be carried out again.
void ActReceiver::Begin(const Fleet::SignedAct& act, Json::Value result) {
    result["verdict"] = kPending;
    taken_["last"] = Json::Int64{act.number};
    Keep(result);
    if (!Save()) {
        result["verdict"] = "failed";
        result["message"] = "The host cannot write " + file_ + ".";
        taken_["acts"].removeMember(std::to_string(act.number));
        return hooks_.answer(std::to_string(act.number), result);
    }
    SDK_LOG(FleetLog(), PRIO_NOTICE, "the act %s from the fleet begins: %s, signed by %s",
            std::to_string(act.number), act.name, act.signer);
    running_ = std::move(result);
    hooks_.answer(std::to_string(act.number), running_);
    runner_->Start(act);
}

void ActReceiver::Finish(const ActOutcome& outcome, std::int64_t now_s) {
    running_["verdict"] = outcome.is_done ? "done" : "failed";
    running_["message"] = outcome.message;
    running_["ended_s"] = Json::Int64{now_s};
    if (outcome.details.isObject()) running_["details"] = outcome.details;
    Keep(running_);
    if (!Save()) SDK_LOG(FleetLog(), PRIO_ERROR, "%s cannot be written", file_);
    SDK_LOG(FleetLog(), PRIO_NOTICE, "the act %s has ended: %s", running_["number"].asString(),
            outcome.message);
    hooks_.answer(running_["number"].asString(), running_);
    hooks_.record(running_);
}

/// The details of a comparison may be large and are not needed again.
void ActReceiver::Keep(const Json::Value& result) {
    Json::Value& acts = taken_["acts"];
    Json::Value& kept = acts[result["number"].asString()];
    kept = result;
    if (kept.isMember("details")) kept["details"].removeMember("differences");
    const std::vector<std::string> names = acts.getMemberNames();
    if (names.size() <= kMostKept) return;
    acts.removeMember(*std::min_element(names.begin(), names.end(),
                                        [](const std::string& one, const std::string& other) {
                                            return NumberOf(one) < NumberOf(other);
                                        }));
}

}  // namespace Engine
