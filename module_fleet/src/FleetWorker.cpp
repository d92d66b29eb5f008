// Owns the connection to the broker and the thread. Must not know the window (ReportExporter does)
// nor what is a good policy or act (PolicyReceiver and ActReceiver do). Reports and policies go
// through queries, so no other module is needed.
#include "FleetWorker.h"

#include <fleet/SignedPolicy.h>
#include <fleet/Topics.h>
#include <framework/Engine.h>
#include <module_utils/ModuleUtils.h>
#include <poll.h>
#include <sdk/commands/ExecuteCmdUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/files/Sha256.h>
#include <sdk/log/Log.h>
#include <sdk/net/NameLookup.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/time/TimeUtils.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <exception>
#include <utility>

#include "FleetAlarm.h"
#include "FleetLog.h"

namespace Engine {

using SDK::JsonUtils;

namespace {

constexpr std::chrono::milliseconds kPass{500};  // upper bound of the wait of a new report
constexpr std::int64_t kStatusMs = 1'000;
constexpr std::int64_t kFirstRetryMs = 5'000;
constexpr std::int64_t kMostRetryMs = 60'000;
constexpr std::int64_t kConnectMs = 20'000;
constexpr std::int64_t kLastedMs = 5'000;
constexpr std::chrono::milliseconds kLookupPass{20};
constexpr Json::ArrayIndex kMostReasons = 20;
constexpr std::size_t kMostReasonBytes = 300;
constexpr Json::ArrayIndex kMostPaths = 8;
constexpr std::size_t kMostPathBytes = 300;

bool Ask(const std::string& query, const Json::Value& request, Json::Value& answer) {
    return Framework::Engine::Instance().Queries().Ask(query, request, answer) && answer.isObject();
}

std::string HostName() {
    std::array<char, 256> name{};
    return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

/// What the centre needs of the health; bounded.
Json::Value ShortHealth(const Json::Value& health) {
    Json::Value brief(Json::objectValue);
    brief["state"] = JsonUtils::GetStringValue(health, "state", "unknown");
    brief["reasons"] = Json::Value(Json::arrayValue);
    Json::Value reasons;
    JsonUtils::GetArrayValue(health, "reasons", reasons);
    for (const Json::Value& reason : reasons) {
        if (brief["reasons"].size() >= kMostReasons) break;
        Json::Value item(Json::objectValue);
        item["code"] = JsonUtils::GetStringValue(reason, "code", "");
        item["text"] = JsonUtils::GetStringValue(reason, "text", "").substr(0, kMostReasonBytes);
        brief["reasons"].append(item);
    }
    return brief;
}

/// The first protected paths, and of each what the centre shows.
Json::Value ShortPaths(const Json::Value& paths) {
    Json::Value list(Json::arrayValue);
    if (!paths.isArray()) return list;
    for (const Json::Value& path : paths) {
        if (list.size() >= kMostPaths) break;
        Json::Value item(Json::objectValue);
        for (const char* key : {"path", "backup_path", "problem"}) {
            item[key] = JsonUtils::GetStringValue(path, key, "").substr(0, kMostPathBytes);
        }
        for (const char* key :
             {"state", "auto_restore", "watched_directories", "held", "last_local_backup"}) {
            item[key] = path[key];
        }
        for (const char* key : {"generation", "approved_at", "approval"}) {
            if (path["baseline"].isObject()) item["baseline"][key] = path["baseline"][key];
        }
        for (const char* key : {"ended_at", "objects"}) {
            if (path["last_look"].isObject()) item["last_look"][key] = path["last_look"][key];
        }
        list.append(std::move(item));
    }
    return list;
}

/// {"id", "look_age_seconds"}: another id says that another state is approved, and the age is that
/// of the oldest complete look at a protected path; below 0: there is a path without one.
Json::Value ApprovedState(const Json::Value& paths, std::int64_t now_s) {
    SDK::Sha256 digest;
    std::int64_t age_s = 0;
    for (const Json::Value& path : paths) {
        const Json::Value& baseline = path["baseline"];
        const std::string text = path["path"].asString() + "\n" +
                                 baseline["generation"].asString() + "\n" +
                                 baseline["approved_at"].asString() + "\n";
        digest.Update(text.data(), text.size());
        const Json::Value& ended = path["last_look"]["ended_at"];
        const bool is_looked_at = ended.isInt64() && age_s >= 0;
        age_s = is_looked_at ? std::max(age_s, now_s - ended.asInt64()) : -1;
    }
    Json::Value approved(Json::objectValue);
    approved["id"] = digest.Hex();
    approved["look_age_seconds"] = Json::Int64{age_s};
    return approved;
}

void TellLoss(std::int64_t count, std::int64_t seq) {
    const std::string text = std::to_string(count) + " reports up to number " +
                             std::to_string(seq) +
                             " were dropped before the collector had them: the report store was "
                             "full or is new.";
    SDK_LOG(FleetLog(), PRIO_ERROR, "%s", text);
    SendFleetAlarm("fleet_reports_lost", text);
}

void TellRefusal(const std::string& feature, const std::string& why) {
    SendFleetAlarm("fleet_policy_refused",
                   "A policy of " + feature + " from the fleet is refused: " + why + ".");
}

void TellRefusedAct(const std::string& number, const std::string& why) {
    SendFleetAlarm("fleet_act_refused",
                   "The act " + number + " from the fleet is refused: " + why + ".");
}

/// Reads a site, however large.
int RunCtl(const std::vector<std::string>& arguments, std::string& output) {
    constexpr int kLongestMs = 3600 * 1000;
    constexpr std::size_t kMostOutput = 1024 * 1024;
    int exit_code = -1;
    SDK::ExecuteCmdUtils::ExecuteCmd(SDK::PathUtils::GetInstallationPath() + "bin/morvanectl",
                                     arguments, kLongestMs, exit_code, output, kMostOutput);
    return exit_code;
}

std::string DataFile(const char* name) {
    return SDK::PathUtils::GetInstallationPath() + "data/" + name;
}

}  // namespace

FleetWorker::FleetWorker(FleetSettings settings, const std::string& agent_id)
    : settings_(std::move(settings)),
      agent_id_(agent_id),
      stop_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      exporter_(
          settings_.window, Ask,
          [this](const Fleet::Report& report) {
              return broker_->Publish(Fleet::ToMessage(agent_id_, report));
          },
          TellLoss),
      policies_(
          {agent_id, settings_.groups}, settings_.policy_key, DataFile("fleet_policies.json"), Ask,
          [this](const std::string& feature, const Json::Value& result) {
              PublishResult(feature, result);
          },
          TellRefusal),
      acts_({agent_id, settings_.groups}, settings_.policy_key, DataFile("fleet_acts.json"),
            std::make_unique<ActRunner>(Ask, RunCtl),
            {[this](const std::string& number, const Json::Value& result) {
                 PublishActResult(number, result);
             },
             TellRefusedAct,
             [](const Json::Value& result) {
                 SendDataMessage("sentrel_fleet_act_1", JsonUtils::JsonToString(result));
             }}),
      backoff_(kFirstRetryMs, kMostRetryMs),
      thread_([this] { Run(); }) {}

FleetWorker::~FleetWorker() {
    ::eventfd_write(stop_.Get(), 1);
    thread_.join();
}

Json::Value FleetWorker::Status() {
    Json::Value answer(Json::objectValue);
    const std::lock_guard<std::mutex> lock(mutex_);
    answer["fleet"] = status_;
    return answer;
}

bool FleetWorker::WaitForStop(std::chrono::milliseconds time) const {
    pollfd source{stop_.Get(), POLLIN, 0};
    return ::poll(&source, 1, static_cast<int>(time.count())) > 0;
}

void FleetWorker::Run() {
    do {
        try {
            RunConnection();
        } catch (const std::exception& error) {
            SDK_LOG(FleetLog(), PRIO_ERROR, "the connection to the fleet failed: %s",
                    std::string(error.what()));
        }
        broker_.reset();
    } while (!WaitForStop(std::chrono::milliseconds(backoff_.WaitMs())));
}

void FleetWorker::RunConnection() {
    std::string error;
    bool greeted = false;
    bool good = FindBroker(error) && Begin(error);
    const std::int64_t begin_ms = SDK::TimeUtils::GetMonotonicMs();
    while (good && !WaitForStop(std::chrono::milliseconds(0))) {
        good = broker_->Step(kPass, stop_.Get(), error);
        const std::int64_t now_ms = SDK::TimeUtils::GetMonotonicMs();
        if (good && broker_->IsConnected()) {
            if (!greeted) Greet();
            greeted = true;
            Pass(now_ms);
        } else if (good && now_ms - begin_ms > kConnectMs) {
            error = "the broker does not answer";
            good = false;
        }
    }
    if (WaitForStop(std::chrono::milliseconds(0))) {
        if (good) SayGoodbye();
        return;
    }
    const bool lasted = greeted && SDK::TimeUtils::GetMonotonicMs() - begin_ms > kLastedMs;
    backoff_.Ended(lasted);
    SDK_LOG(FleetLog(), PRIO_WARNING, "broker %s: %s; the next attempt follows in %s s",
            settings_.broker.host, error, std::to_string(backoff_.WaitMs() / 1000));
    Json::Value status(Json::objectValue);
    status["connected"] = false;
    status["error"] = error;
    Publish(status);
}

/// The resolver may take long; a stop must not wait for it.
bool FleetWorker::FindBroker(std::string& error) const {
    SDK::NameLookup lookup(settings_.broker.host);
    SDK::NameLookup::Result result = lookup.Poll();
    while (result == SDK::NameLookup::Result::kPending && !WaitForStop(kLookupPass)) {
        result = lookup.Poll();
    }
    error = "the name is not found";
    return result == SDK::NameLookup::Result::kFound;
}

/// The centre learns at once that this host is not guarded any more.
void FleetWorker::SayGoodbye() {
    Json::Value state(Json::objectValue);
    state["online"] = false;
    state["stopped"] = true;
    broker_->Publish({Fleet::StateTopic(agent_id_), JsonUtils::JsonToString(state), true});
    broker_->Disconnect();
}

bool FleetWorker::Begin(std::string& error) {
    broker_ = std::make_unique<Fleet::BrokerClient>(
        settings_.broker, agent_id_, Fleet::kMaxPolicyBytes,
        [this](Fleet::Message&& message) { Receive(std::move(message)); });
    Json::Value will(Json::objectValue);
    will["online"] = false;
    broker_->SetWill({Fleet::StateTopic(agent_id_), JsonUtils::JsonToString(will), true});
    return broker_->Connect(error);
}

void FleetWorker::Greet() {
    SDK_LOG(FleetLog(), PRIO_NOTICE, "connected to the broker %s", settings_.broker.host);
    state_due_ms_ = status_due_ms_ = 0;
    exporter_.Restart();
    broker_->Subscribe(Fleet::AckTopic(agent_id_));
    broker_->Subscribe(Fleet::PolicyTopic(agent_id_, "+"));
    acts_.Restart(SDK::TimeUtils::GetMonotonicMs());
    broker_->Subscribe(Fleet::ActTopic(agent_id_, "+"));
}

void FleetWorker::Pass(std::int64_t now_ms) {
    exporter_.Pump(now_ms);
    policies_.Work(now_ms);
    acts_.Work(now_ms, SDK::TimeUtils::GetCurrentTimestampS());
    if (now_ms >= state_due_ms_) PublishState(now_ms);
    if (now_ms < status_due_ms_) return;
    status_due_ms_ = now_ms + kStatusMs;
    Json::Value status(Json::objectValue);
    status["connected"] = true;
    status["refused_by_broker"] = Json::UInt64{broker_->Refused()};
    Publish(status);
}

void FleetWorker::Receive(Fleet::Message&& message) {
    const auto topic = Fleet::ParseTopic(message.topic);
    if (!topic || topic->agent_id != agent_id_) return;
    if (topic->channel == "policy") {
        policies_.Take(topic->leaf, std::move(message.payload));
    } else if (topic->channel == "act") {
        acts_.Take(topic->leaf, std::move(message.payload), message.retain);
    } else if (topic->channel == "ack") {
        const auto acknowledgement = Fleet::ReadAcknowledgement(message.payload);
        if (acknowledgement) {
            exporter_.Take(*acknowledgement, SDK::TimeUtils::GetMonotonicMs());
        }
    }
}

void FleetWorker::PublishState(std::int64_t now_ms) {
    Json::Value agent;
    if (!Ask("agent.status", Json::Value(Json::objectValue), agent)) return;  // not started yet
    state_due_ms_ = now_ms + settings_.heartbeat_s * 1000;
    const ExportState reports = exporter_.State();
    Json::Value state(Json::objectValue);
    state["online"] = true;
    state["time_ms"] = Json::Int64{SDK::TimeUtils::GetCurrentTimestampS() * 1000};
    state["host"] = HostName();
    state["version"] = JsonUtils::GetStringValue(agent, "version", "");
    state["health"] = ShortHealth(agent["health"]);
    state["protected_paths"] = ShortPaths(agent["protected_paths"]);
    state["approved"] =
        ApprovedState(state["protected_paths"], SDK::TimeUtils::GetCurrentTimestampS());
    const Json::Value& undone = agent["protection"]["last_undone"];
    state["last_undone_ms"] = Json::Int64{undone.isInt64() ? undone.asInt64() * 1000 : 0};
    state["heartbeat_seconds"] = settings_.heartbeat_s;
    state["reports"]["last_seq"] = Json::Int64{reports.last_seq};
    state["reports"]["acknowledged"] = Json::Int64{reports.acknowledged};
    state["reports"]["lost"] = Json::Int64{reports.lost};
    state["policies_refused"] = Json::Int64{policies_.Refused()};
    state["acts_refused"] = Json::Int64{acts_.Refused()};
    for (const std::string& group : settings_.groups) state["groups"].append(group);
    broker_->Publish({Fleet::StateTopic(agent_id_), JsonUtils::JsonToString(state), true});
}

void FleetWorker::PublishResult(const std::string& feature, const Json::Value& result) {
    broker_->Publish(
        {Fleet::ResultTopic(agent_id_, feature), JsonUtils::JsonToString(result), true});
}

/// The broker keeps it for a collector that is away; not for ever, since each act has its topic.
void FleetWorker::PublishActResult(const std::string& number, const Json::Value& result) {
    constexpr std::uint32_t kKeptS = Fleet::SignedAct::kLongestS;
    broker_->Publish({Fleet::ActResultTopic(agent_id_, number),
                      JsonUtils::JsonToString(result),
                      true,
                      {},
                      kKeptS});
}

void FleetWorker::Publish(Json::Value& status) {
    const ExportState reports = exporter_.State();
    status["broker"] = settings_.broker.host;
    status["acknowledged"] = Json::Int64{reports.acknowledged};
    status["last_seq"] = Json::Int64{reports.last_seq};
    status["in_flight"] = Json::Int64{reports.in_flight};
    status["reports_lost"] = Json::Int64{reports.lost};
    status["policies_refused"] = Json::Int64{policies_.Refused()};
    status["acts_refused"] = Json::Int64{acts_.Refused()};
    const std::lock_guard<std::mutex> lock(mutex_);
    status_ = std::move(status);
}

}  // namespace Engine
