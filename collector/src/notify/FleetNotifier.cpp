// Owns the threads of the channels. Must not read the store (NewsReader does) or send anything
// (notify/ does).
#include "notify/FleetNotifier.h"

#include <notify/Channel.h>
#include <notify/Senders.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "base/ServiceLog.h"
#include "notify/NewsReader.h"

namespace Collector {

namespace {

constexpr const char* kOfHosts = "-hosts";
constexpr int kPollMs = 1000;

std::string MarkName(const std::string& channel) {
    return "notify-" + channel;
}

std::string ThisHost() {
    std::array<char, 256> name{};
    return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

class StoreKeeper : public Notify::MarkKeeper {
  public:
    StoreKeeper(std::shared_ptr<FleetStore> store, const std::string& channel)
        : store_(std::move(store)), name_(MarkName(channel)) {}

    Found Read(std::string& text) override {
        std::optional<std::string> value;
        if (!store_->ReadMark(name_, value)) return Found::kFailed;
        if (!value) return Found::kNone;
        text = *value;
        return Found::kMark;
    }
    std::string Write(const std::string& text) override {
        return store_->SetMark(name_, text) ? "" : store_->Error();
    }
    void Remove() override { store_->RemoveMark(name_); }

  private:
    const std::shared_ptr<FleetStore> store_;
    const std::string name_;
};

}  // namespace

FleetNotifier::FleetNotifier(Notify::Settings settings, Database::Location database)
    : settings_(std::move(settings)), database_(std::move(database)) {}

FleetNotifier::~FleetNotifier() {
    if (heartbeat_) heartbeat_->BeginStop();
    for (const auto& worker : workers_) worker->BeginStop();
}

std::vector<Notify::ChannelPlan> FleetNotifier::Plans(bool is_of_hosts) const {
    Notify::Origin origin;
    origin.host = ThisHost();
    origin.agent_id = "fleet-" + origin.host + (is_of_hosts ? kOfHosts : "");
    origin.version = SENTREL_VERSION;
    // A host is an incident of its own, so that no protected paths are needed.
    auto plans = Notify::PlanChannels(settings_, origin, [] { return std::vector<std::string>(); });
    for (Notify::ChannelPlan& plan : plans) plan.name += is_of_hosts ? kOfHosts : "";
    return plans;
}

bool FleetNotifier::Start(const std::function<bool()>& is_alive, std::string& error) {
    if (!ForgetOthers(error)) return false;
    for (const bool is_of_hosts : {false, true}) {
        for (const Notify::ChannelPlan& plan : Plans(is_of_hosts)) {
            if (!StartOne(plan, is_of_hosts, error)) return false;
        }
    }
    if (!settings_.heartbeat.url.empty()) {
        heartbeat_ = std::make_unique<Notify::Heartbeat>(settings_.heartbeat, is_alive);
    }
    return true;
}

/// A channel that is switched on again begins anew: nobody wants to hear of the time between.
bool FleetNotifier::ForgetOthers(std::string& error) const {
    FleetStore store;
    bool good = store.OpenExisting(database_);
    for (const bool is_of_hosts : {false, true}) {
        const auto plans = Plans(is_of_hosts);
        for (const char* channel : {"mail", "webhook"}) {
            const std::string name = channel + std::string(is_of_hosts ? kOfHosts : "");
            const bool is_on = std::any_of(plans.begin(), plans.end(),
                                           [&](const auto& plan) { return plan.name == name; });
            good = good && (is_on || store.RemoveMark(MarkName(name)));
        }
    }
    if (!good) error = store.Error();
    return good;
}

bool FleetNotifier::StartOne(const Notify::ChannelPlan& plan, bool is_of_hosts,
                             std::string& error) {
    auto store = std::make_shared<FleetStore>();
    if (!store->OpenExisting(database_)) {
        error = store->Error();
        return false;
    }
    auto reader = std::make_shared<NewsReader>(*store, is_of_hosts);
    Notify::ChannelWorker::Times times;
    times.poll_ms = kPollMs;
    workers_.push_back(std::make_unique<Notify::ChannelWorker>(
        plan,
        [store, reader](const Json::Value& request, Json::Value& answer) {
            return reader->Read(request, answer);
        },
        std::make_unique<StoreKeeper>(store, plan.name), times));
    return true;
}

Json::Value FleetNotifier::Test() const {
    Json::Value results(Json::arrayValue);
    const auto add = [&](const std::string& channel, const std::string& to,
                         const std::string& error) {
        Json::Value result(Json::objectValue);
        result["channel"] = channel;
        result["to"] = to;
        result["error"] = error;
        results.append(std::move(result));
    };
    for (const Notify::ChannelPlan& plan : Plans(false)) {
        add(plan.name, plan.to, plan.make()->Test());
    }
    if (!settings_.heartbeat.url.empty()) {
        add("heartbeat", "", Notify::SendHeartbeat(settings_.heartbeat));
    }
    return results;
}

void FleetNotifier::LogChanges() {
    std::vector<Json::Value> all;
    for (const auto& worker : workers_) all.push_back(worker->Status());
    if (heartbeat_) all.push_back(heartbeat_->Status());
    for (const Json::Value& status : all) {
        const std::string channel = status["channel"].asString();
        const bool is_working = status["working"].asBool();
        bool& was_working = was_working_.try_emplace(channel, true).first->second;
        if (is_working == was_working) continue;
        was_working = is_working;
        Log(is_working ? Severity::kNotice : Severity::kWarning,
            "notifications by " + channel +
                (is_working ? " are delivered again"
                            : " fail: " + status["last_error"].asString()));
    }
}

}  // namespace Collector
