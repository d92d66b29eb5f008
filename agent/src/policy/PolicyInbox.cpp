// Owns the queue of policies that modules submit, and its thread. Must not decide what a good
// policy is (PolicyService does). Queries arrive on the modules' threads.
#include "policy/PolicyInbox.h"

#include <sdk/text/JsonUtils.h>

#include <utility>

namespace Agent {

namespace {

constexpr const char* kSubmitQuery = "policy.submit";
constexpr const char* kOutcomeQuery = "policy.outcome";
constexpr std::size_t kMostWaiting = 8;
constexpr std::size_t kMostOutcomes = 16;

Json::Value Error(const char* text) {
    Json::Value answer(Json::objectValue);
    answer["error"] = text;
    return answer;
}

}  // namespace

PolicyInbox::PolicyInbox(PolicyService& service, Framework::QueryRegistry& queries)
    : service_(service), queries_(queries), thread_([this] { Run(); }) {
    queries_.Register(kSubmitQuery, [this](const auto& request) { return Submit(request); });
    queries_.Register(kOutcomeQuery, [this](const auto& request) { return Outcome(request); });
}

PolicyInbox::~PolicyInbox() {
    queries_.Unregister(kSubmitQuery);
    queries_.Unregister(kOutcomeQuery);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

Json::Value PolicyInbox::Submit(const Json::Value& request) {
    Item item;
    item.feature = SDK::JsonUtils::GetStringValue(request, "feature", "");
    item.text = SDK::JsonUtils::GetStringValue(request, "text", "");
    const std::lock_guard<std::mutex> lock(mutex_);
    if (waiting_.size() >= kMostWaiting) return Error("too many policies wait");
    item.ticket = ++last_ticket_;
    outcomes_[item.ticket]["done"] = false;
    waiting_.push_back(std::move(item));
    changed_.notify_all();
    Json::Value answer(Json::objectValue);
    answer["ticket"] = Json::Int64{last_ticket_};
    return answer;
}

Json::Value PolicyInbox::Outcome(const Json::Value& request) {
    const Json::Value& ticket = request["ticket"];
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = ticket.isInt64() ? outcomes_.find(ticket.asInt64()) : outcomes_.end();
    return found == outcomes_.end() ? Error("no such ticket") : found->second;
}

void PolicyInbox::Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
        if (stopping_) return;
        const Item item = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        const PolicyVerdict verdict = service_.Apply(item.feature, item.text);
        lock.lock();
        Keep(item.ticket, verdict);
    }
}

void PolicyInbox::Keep(std::int64_t ticket, const PolicyVerdict& verdict) {
    Json::Value& outcome = outcomes_[ticket];
    outcome["done"] = true;
    outcome["state"] = ToText(verdict.state);
    outcome["errors"] = verdict.errors;
    outcome["warnings"] = verdict.warnings;
    while (outcomes_.size() > kMostOutcomes) outcomes_.erase(outcomes_.begin());
}

}  // namespace Agent
