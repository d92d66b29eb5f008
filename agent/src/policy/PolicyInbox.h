#pragma once

#include <framework/QueryRegistry.h>
#include <json/value.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "policy/PolicyService.h"

namespace Agent {

/// Takes policies from modules, whose threads must not wait for them, and applies them one after
/// the other on a thread of its own. Answers two queries while it lives:
///
/// "policy.submit": {"feature","text"} gives {"ticket":N}, or {"error"} when too many wait.
/// "policy.outcome": {"ticket":N} gives {"done":false}, or {"done":true,"state","errors",
/// "warnings"} as `policy apply` does, or {"error"} for a ticket that is unknown or too old.
class PolicyInbox {
  public:
    /// Borrows both.
    PolicyInbox(PolicyService& service, Framework::QueryRegistry& queries);

    /// Waits for the policy that is being applied; the others are left out.
    ~PolicyInbox();
    PolicyInbox(const PolicyInbox&) = delete;
    PolicyInbox& operator=(const PolicyInbox&) = delete;

  private:
    struct Item {
        std::int64_t ticket = 0;
        std::string feature;
        std::string text;
    };

    Json::Value Submit(const Json::Value& request);
    Json::Value Outcome(const Json::Value& request);
    void Run();
    void Keep(std::int64_t ticket, const PolicyVerdict& verdict);

    PolicyService& service_;
    Framework::QueryRegistry& queries_;
    std::mutex mutex_;  ///< guards what follows, down to stopping_
    std::condition_variable changed_;
    std::int64_t last_ticket_ = 0;
    std::deque<Item> waiting_;
    std::map<std::int64_t, Json::Value> outcomes_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace Agent
