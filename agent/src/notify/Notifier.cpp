// Owns the channels' threads and answers for them. It must not read reports (ChannelWorker does) or
// send anything (channels do). Queries run on the control API's threads.
#include "notify/Notifier.h"

#include <notify/Senders.h>
#include <sdk/files/DirUtils.h>
#include <sdk/text/JsonUtils.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace Agent {

using SDK::JsonUtils;

namespace {

constexpr char kQuery[] = "notify";
constexpr char kStatusQuery[] = "status.notify";
constexpr char kReportQuery[] = "reports.read";
constexpr char kProtectionQuery[] = "status.sentrel";
constexpr mode_t kPrivate = 0700;

Json::Value Error(const std::string& sentence) {
    Json::Value answer(Json::objectValue);
    answer["error"] = sentence;
    return answer;
}

/// A channel that is switched on again begins anew: nobody wants to hear of the time between.
void ForgetMarks(const std::string& folder, const std::vector<Notify::ChannelPlan>& plans) {
    for (const char* name : {"mail", "webhook", "syslog", "journald", "ocsf"}) {
        const bool is_on = std::any_of(plans.begin(), plans.end(),
                                       [&](const auto& plan) { return plan.name == name; });
        if (!is_on) ::unlink((folder + "/" + name + ".json").c_str());
    }
}

/// A channel that is off because of its settings.
Json::Value FaultStatus(const Notify::SettingsFault& fault) {
    Json::Value status(Json::objectValue);
    status["channel"] = fault.channel.empty() ? "notify" : fault.channel;
    status["to"] = "";
    status["working"] = fault.channel.empty();
    status["degraded"] = true;
    status["last_error"] = "conf/agent.json: " + fault.text;
    return status;
}

}  // namespace

Notifier::Notifier(Framework::QueryRegistry& queries, const Notify::Settings& settings,
                   const std::vector<Notify::SettingsFault>& faults, const Notify::Origin& origin,
                   const std::string& folder, const std::string& hook, StatusOf status,
                   const Notify::ChannelWorker::Times& times)
    : queries_(queries), settings_(settings), faults_(faults), status_(std::move(status)) {
    SDK::DirUtils::MakeDirs(folder, kPrivate);
    plans_ = Notify::PlanChannels(settings, origin, [this] { return Roots(); });
    // A fault in the settings does not make a channel forget what it still has to send.
    if (faults.empty()) ForgetMarks(folder, plans_);
    plans_.push_back(Notify::PlanHook(hook, settings.hook_seconds));
    const auto read = [this](const Json::Value& request, Json::Value& answer) {
        return queries_.Ask(kReportQuery, request, answer) && answer.isObject();
    };
    for (const Notify::ChannelPlan& plan : plans_) {
        workers_.push_back(std::make_unique<Notify::ChannelWorker>(
            plan, read, Notify::KeepInFile(folder + "/" + plan.name + ".json"), times));
    }
    if (!settings.heartbeat.url.empty()) {
        heartbeat_ = std::make_unique<Notify::Heartbeat>(settings.heartbeat, [this] {
            const Json::Value health = status_()["health"];
            return JsonUtils::GetStringValue(health, "state", "off") != "off";
        });
    }
    queries_.Register(kStatusQuery, [this](const Json::Value&) { return Status(); });
    queries_.Register(kQuery, [this](const Json::Value& request) { return Answer(request); });
}

Notifier::~Notifier() {
    test_interrupter_.Interrupt();
    if (heartbeat_) heartbeat_->BeginStop();
    for (const auto& worker : workers_) worker->BeginStop();
    queries_.Unregister(kQuery);
    queries_.Unregister(kStatusQuery);
    heartbeat_.reset();
    workers_.clear();
}

Json::Value Notifier::Status() const {
    Json::Value status(Json::objectValue);
    Json::Value& channels = status["notifications"] = Json::Value(Json::arrayValue);
    for (const auto& worker : workers_) channels.append(worker->Status());
    if (heartbeat_) channels.append(heartbeat_->Status());
    for (const Notify::SettingsFault& fault : faults_) channels.append(FaultStatus(fault));
    return status;
}

Json::Value Notifier::Answer(const Json::Value& request) {
    if (JsonUtils::GetStringValue(request, "action", "") != "test") {
        return Error("The only action is test.");
    }
    return Test(JsonUtils::GetStringValue(request, "channel", ""));
}

Json::Value Notifier::Test(const std::string& channel) {
    const SDK::CommandInterrupter::Scope scope(test_interrupter_);
    Json::Value answer(Json::objectValue);
    Json::Value& results = answer["results"] = Json::Value(Json::arrayValue);
    for (const Notify::ChannelPlan& plan : plans_) {
        // Without a name the hook is left out: it may empty caches.
        if (channel.empty() ? plan.name == "hook" : plan.name != channel) continue;
        results.append(TestOne(plan.name, [&plan] { return plan.make()->Test(); }));
    }
    if (heartbeat_ && (channel.empty() || channel == "heartbeat")) {
        results.append(
            TestOne("heartbeat", [this] { return Notify::SendHeartbeat(settings_.heartbeat); }));
    }
    if (!results.empty()) return answer;
    return Error(channel.empty() ? "No channel is on: see the section \"notify\" of "
                                   "conf/agent.json."
                                 : "There is no channel " + channel + ", or it is off.");
}

Json::Value Notifier::TestOne(const std::string& name, const std::function<std::string()>& test) {
    const std::string error = test();
    Json::Value result(Json::objectValue);
    result["channel"] = name;
    result["sent"] = error.empty();
    result["error"] = error;
    return result;
}

std::vector<std::string> Notifier::Roots() const {
    std::vector<std::string> roots;
    Json::Value answer;
    if (!queries_.Ask(kProtectionQuery, Json::Value(Json::objectValue), answer)) return roots;
    for (const Json::Value& path : answer["protected_paths"]) {
        roots.push_back(JsonUtils::GetStringValue(path, "path", ""));
    }
    return roots;
}

}  // namespace Agent
