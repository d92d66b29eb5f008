#include "SimulatedHost.h"

#include <fleet/Report.h>
#include <fleet/Topics.h>
#include <sdk/text/JsonUtils.h>

namespace test {

namespace {

// As in FleetWorker.
constexpr std::int64_t kFirstRetryMs = 5'000;
constexpr std::int64_t kMostRetryMs = 60'000;
constexpr std::int64_t kConnectMs = 20'000;
constexpr std::int64_t kLastedMs = 5'000;
constexpr std::int64_t kHeartbeatMs = 15'000;
constexpr int kWindow = 64;
constexpr std::size_t kBodyBytes = 1500;

std::string Will() {
    return R"({"online":false})";
}

}  // namespace

SimulatedHost::SimulatedHost(const std::string& agent_id, Fleet::BrokerSettings settings)
    : agent_id_(agent_id),
      settings_(std::move(settings)),
      exporter_(
          kWindow,
          [this](const char* query, const Json::Value& request, Json::Value& answer) {
              return Ask(query, request, answer);
          },
          [this](const Fleet::Report& report) {
              return broker_->Publish(Fleet::ToMessage(agent_id_, report));
          },
          [](std::int64_t, std::int64_t) {}),
      backoff_(kFirstRetryMs, kMostRetryMs) {}

std::string SimulatedHost::BodyOf(const std::string& agent_id, std::int64_t seq) {
    std::string body = R"({"event_count":1,"file_info":[{"action":"modify","file_path":"/srv/)" +
                       agent_id + "/" + std::to_string(seq) + R"(","diff":")";
    body.resize(kBodyBytes - 4, 'x');
    return body + R"("}]})";
}

void SimulatedHost::Raise(std::int64_t count, std::int64_t now_ms) {
    raised_ += count;
    waiting_.emplace_back(raised_, now_ms);
}

bool SimulatedHost::Ask(const std::string& query, const Json::Value& request, Json::Value& answer) {
    answer = Json::Value(Json::objectValue);
    if (query == "status.report") {
        answer["reports"]["working"] = true;
        if (!stream_.empty()) {
            answer["reports"]["exporters"][stream_]["acked_seq"] = Json::Int64{mark_};
        }
        return true;
    }
    if (query == "reports.ack") {
        stream_ = request["exporter"].asString();
        mark_ = request["seq"].asInt64();
        answer["acked_seq"] = request["seq"];
        return true;
    }
    answer["reports"] = Json::Value(Json::arrayValue);
    answer["last_seq"] = Json::Int64{raised_};
    const Json::Int64 last =
        std::min<Json::Int64>(raised_, request["after"].asInt64() + request["limit"].asInt64());
    for (Json::Int64 seq = request["after"].asInt64() + 1; seq <= last; ++seq) {
        Json::Value report(Json::objectValue);
        report["seq"] = seq;
        report["time_ms"] = seq;
        report["kind"] = "data";
        report["name"] = "2";
        report["outcome"] = "restored";
        report["duration_ms"] = 1.5;
        report["body"] = BodyOf(agent_id_, seq);
        answer["reports"].append(std::move(report));
    }
    return true;
}

void SimulatedHost::Step(std::int64_t now_ms) {
    now_ms_ = now_ms;
    if (!broker_) {
        if (now_ms >= connect_due_ms_) Connect(now_ms);
        return;
    }
    std::string error;
    if (!broker_->Step(std::chrono::milliseconds(0), -1, error)) return Lose(now_ms);
    if (!broker_->IsConnected()) {
        if (now_ms - begun_ms_ > kConnectMs) Lose(now_ms);
        return;
    }
    if (!is_greeted_) Greet(now_ms);
    exporter_.Pump(now_ms);
    if (now_ms >= state_due_ms_) PublishState(now_ms);
}

void SimulatedHost::Connect(std::int64_t now_ms) {
    std::string error;
    begun_ms_ = now_ms;
    is_greeted_ = false;
    broker_ = std::make_unique<Fleet::BrokerClient>(
        settings_, agent_id_, Fleet::kMaxBodyBytes,
        [this](Fleet::Message&& message) { Receive(message); });
    broker_->SetWill({Fleet::StateTopic(agent_id_), Will(), true});
    if (!broker_->Connect(error)) Lose(now_ms);
}

void SimulatedHost::Greet(std::int64_t now_ms) {
    is_greeted_ = true;
    state_due_ms_ = now_ms;
    exporter_.Restart();
    broker_->Subscribe(Fleet::AckTopic(agent_id_));
    broker_->Subscribe(Fleet::PolicyTopic(agent_id_, "+"));
}

void SimulatedHost::PublishState(std::int64_t now_ms) {
    state_due_ms_ = now_ms + kHeartbeatMs;
    Json::Value state(Json::objectValue);
    state["online"] = true;
    state["host"] = "simulated";
    state["version"] = "0.1.0";
    state["health"]["state"] = "healthy";
    state["protected_paths"][0]["path"] = "/srv/www/";
    state["protected_paths"][0]["state"] = "ready";
    state["reports"]["last_seq"] = Json::Int64{raised_};
    broker_->Publish({Fleet::StateTopic(agent_id_), SDK::JsonUtils::JsonToString(state), true});
}

void SimulatedHost::Receive(const Fleet::Message& message) {
    const auto topic = Fleet::ParseTopic(message.topic);
    if (!topic || topic->agent_id != agent_id_ || topic->channel != "ack") return;
    const auto acknowledgement = Fleet::ReadAcknowledgement(message.payload);
    if (!acknowledgement) return;
    exporter_.Take(*acknowledgement, now_ms_);
    while (!waiting_.empty() && waiting_.front().first <= Acknowledged()) {
        latencies_ms_.push_back(now_ms_ - waiting_.front().second);
        waiting_.pop_front();
    }
}

void SimulatedHost::Lose(std::int64_t now_ms) {
    backoff_.Ended(is_greeted_ && now_ms - begun_ms_ > kLastedMs);
    connect_due_ms_ = now_ms + backoff_.WaitMs();
    is_greeted_ = false;
    broker_.reset();
}

}  // namespace test
