// Owns when a document goes to which host. Must not know the broker (CollectorService does).
#include "centre/Rollouts.h"

#include <sdk/text/JsonUtils.h>

#include <algorithm>
#include <utility>

#include "base/ServiceLog.h"

namespace Collector {

using SDK::JsonUtils;

namespace {

constexpr int kMostPerStep = 100;
constexpr std::int64_t kToleratedAlarms = 3;
constexpr std::size_t kMostText = 300;

bool IsFailure(const std::string& verdict) {
    return verdict == "rejected" || verdict == "refused" || verdict == "failed";
}

std::string FailureOf(const RolloutHost& host, const Json::Value& answer) {
    std::string why = JsonUtils::GetStringValue(answer, "message", "");
    if (why.empty()) why = JsonUtils::GetStringValue(answer, "reason", "");
    Json::Value errors;
    JsonUtils::GetArrayValue(answer, "errors", errors);
    if (why.empty() && !errors.empty()) why = JsonUtils::GetStringValue(errors[0], "message", "");
    return "The host " + host.agent_id + " answered " +
           JsonUtils::GetStringValue(answer, "verdict", "") + ": " + why.substr(0, kMostText);
}

}  // namespace

Json::Value AnswerOf(const Rollout& rollout, const RolloutHost& host) {
    Json::Value answer;
    JsonUtils::ParseJsonStr(host.answer.data(), host.answer.size(), answer);
    if (host.sent_ms == 0 || !answer.isObject()) return {};
    return JsonUtils::GetStringValue(answer, "sha256", "") == rollout.sha256 ? answer
                                                                             : Json::Value();
}

RolloutProgress ProgressOf(const Rollout& rollout, const std::vector<RolloutHost>& hosts) {
    RolloutProgress progress;
    progress.is_wave_sent = progress.is_wave_answered = true;
    for (const RolloutHost& host : hosts) {
        const Json::Value answer = AnswerOf(rollout, host);
        const std::string verdict =
            answer.isObject() ? JsonUtils::GetStringValue(answer, "verdict", "") : "pending";
        const bool is_answered = verdict != "pending";
        const bool is_due = host.wave <= rollout.wave;
        ++progress.hosts;
        progress.waves = std::max(progress.waves, static_cast<int>(host.wave));
        progress.sent += host.sent_ms > 0 ? 1 : 0;
        progress.answered += is_answered ? 1 : 0;
        progress.failed += IsFailure(verdict) ? 1 : 0;
        progress.is_wave_sent = progress.is_wave_sent && (!is_due || host.sent_ms > 0);
        progress.is_wave_answered = progress.is_wave_answered && (!is_due || is_answered);
        if (IsFailure(verdict) && host.wave == rollout.wave && progress.failure.empty()) {
            progress.failure = FailureOf(host, answer);
        }
    }
    return progress;
}

Json::Value ToJson(const Rollout& rollout, const RolloutProgress& progress) {
    Json::Value json(Json::objectValue);
    json["id"] = Json::Int64{rollout.id};
    json["time_ms"] = Json::Int64{rollout.time_ms};
    json["author"] = rollout.author;
    json["kind"] = rollout.kind;
    json["name"] = rollout.name;
    json["number"] = Json::Int64{rollout.number};
    json["sha256"] = rollout.sha256;
    json["expires_ms"] = Json::Int64{rollout.expires_ms};
    json["wave"] = Json::Int64{rollout.wave};
    json["waves"] = progress.waves;
    json["state"] = rollout.state;
    json["reason"] = rollout.reason;
    json["hosts"] = progress.hosts;
    json["sent"] = progress.sent;
    json["answered"] = progress.answered;
    json["failed"] = progress.failed;
    return json;
}

std::vector<int> WavesOf(std::size_t count, int percent) {
    const std::size_t share = count * static_cast<std::size_t>(std::clamp(percent, 1, 100));
    const std::size_t first = percent >= 100 ? count : std::max<std::size_t>(1, share / 100);
    std::vector<int> waves(count, 2);
    std::fill(waves.begin(), waves.begin() + static_cast<std::ptrdiff_t>(std::min(first, count)),
              1);
    return waves;
}

int Enqueue(const Delivery& delivery, const std::vector<HostRecord>& known, int percent,
            RolloutStore& store, Rollout& rollout) {
    std::vector<RolloutHost> targets;
    for (const HostRecord& host : known) {
        if (!Fleet::IsFor(delivery.hosts, {host.agent_id, GroupsOf(host)})) continue;
        targets.push_back({host.id, host.agent_id, 1, 0, ""});
    }
    if (targets.empty()) return 0;
    const bool is_act = delivery.kind == Fleet::DocumentKind::kAct;
    const std::vector<int> waves = WavesOf(targets.size(), is_act ? 100 : percent);
    for (std::size_t at = 0; at < targets.size(); ++at) targets[at].wave = waves[at];
    rollout.kind = Fleet::KindName(delivery.kind);
    rollout.name = delivery.name;
    rollout.number = delivery.number;
    rollout.sha256 = DigestOf(delivery.document);
    rollout.document = delivery.document;
    rollout.expires_ms = delivery.expires_s * 1000;
    return store.Add(rollout, targets) ? static_cast<int>(targets.size()) : -1;
}

Rollouts::Rollouts(RolloutStore& store, Times times, Publish publish)
    : store_(store), times_(times), publish_(std::move(publish)) {}

void Rollouts::Work(std::int64_t now_ms) {
    std::vector<Rollout> running;
    if (!store_.Running(running)) {
        return Log(Severity::kError, "cannot read the rollouts: " + store_.Error());
    }
    for (const Rollout& rollout : running) Advance(rollout, now_ms);
    if (resend_ms_ == 0 || now_ms < resend_ms_) return;
    resend_ms_ = 0;
    for (const Rollout& rollout : running) SendAgain(rollout, now_ms);
}

void Rollouts::SendAgain(const Rollout& rollout, std::int64_t now_ms) {
    std::vector<RolloutHost> hosts;
    const auto delivery = ReadDelivery(rollout.document);
    if (!delivery || !store_.Hosts(rollout, hosts)) return;
    for (const RolloutHost& host : hosts) {
        if (host.sent_ms == 0 || !AnswerOf(rollout, host).isNull()) continue;
        publish_(delivery->MessageTo(host.agent_id, now_ms / 1000));
    }
}

void Rollouts::Advance(const Rollout& rollout, std::int64_t now_ms) {
    std::vector<RolloutHost> hosts;
    if (!store_.Hosts(rollout, hosts)) return;
    const RolloutProgress progress = ProgressOf(rollout, hosts);
    Rollout next = rollout;
    next.reason = WhyStop(rollout, progress, now_ms);
    const std::int64_t waited_ms = now_ms - rollout.wave_begun_ms;
    if (!next.reason.empty()) {
        // Nothing is left to hold back in the last wave.
        const bool is_over = rollout.wave >= progress.waves && progress.failure.empty();
        next.state = is_over ? "done" : "stopped";
    } else if (rollout.wave_begun_ms == 0) {
        next.wave_begun_ms = now_ms;
    } else if (!progress.is_wave_sent) {
        return Send(rollout, hosts, now_ms);
    } else if (progress.is_wave_answered && rollout.wave >= progress.waves) {
        next.state = "done";
        if (progress.failed > 0) {
            next.reason = std::to_string(progress.failed) + " hosts refused it or failed.";
        }
    } else if (progress.is_wave_answered && waited_ms >= times_.soak_ms) {
        ++next.wave;
        next.wave_begun_ms = now_ms;
    } else {
        return;
    }
    if (!store_.Change(rollout, next) || next.state == rollout.state) return;
    Log(next.state == "stopped" ? Severity::kWarning : Severity::kNotice,
        "the " + next.kind + " " + next.name + ", number " + std::to_string(next.number) + ", is " +
            next.state + (next.reason.empty() ? "" : ": " + next.reason));
}

/// Marked first: nobody may publish an act twice.
void Rollouts::Send(const Rollout& rollout, const std::vector<RolloutHost>& hosts,
                    std::int64_t now_ms) {
    const auto delivery = ReadDelivery(rollout.document);
    int sent = 0;
    for (const RolloutHost& host : hosts) {
        if (!delivery || host.wave > rollout.wave || host.sent_ms > 0) continue;
        if (++sent > kMostPerStep || !store_.MarkSent(rollout.id, host.host_id, now_ms)) return;
        publish_(delivery->MessageTo(host.agent_id, now_ms / 1000));
    }
}

/// A sentence when the rollout is not to go on as it is.
std::string Rollouts::WhyStop(const Rollout& rollout, const RolloutProgress& progress,
                              std::int64_t now_ms) {
    if (!progress.failure.empty() && rollout.kind == "policy") return progress.failure;
    const bool is_expired = rollout.expires_ms > 0 && now_ms > rollout.expires_ms;
    const std::int64_t waited_ms = rollout.wave_begun_ms == 0 ? 0 : now_ms - rollout.wave_begun_ms;
    const bool is_late = is_expired || (rollout.expires_ms == 0 && waited_ms > times_.answer_ms);
    if (is_late && !progress.is_wave_answered) {
        return std::to_string(progress.sent - progress.answered) + " hosts have not answered" +
               (is_expired ? ", and the act has expired." : ".");
    }
    if (rollout.kind != "policy" || waited_ms == 0) return "";
    std::int64_t now = 0;
    std::int64_t before = 0;
    if (!store_.CountAlarms(rollout, rollout.wave_begun_ms, now_ms, now) ||
        !store_.CountAlarms(rollout, rollout.wave_begun_ms - waited_ms, rollout.wave_begun_ms,
                            before)) {
        return "";
    }
    if (now <= before + kToleratedAlarms) return "";
    return "The hosts of this wave have raised " + std::to_string(now) + " alarms since, and " +
           std::to_string(before) + " in the same time before.";
}

}  // namespace Collector
