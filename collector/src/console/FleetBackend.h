#pragma once

#include <console/Backend.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "console/CentreRequests.h"
#include "store/FleetStore.h"
#include "store/RolloutStore.h"
#include "store/UserStore.h"

namespace Collector {

/// Answers the console's requests from the collector's database. What is to be published, it only
/// stores there. Thread-safe.
class FleetBackend : public Console::Backend {
  public:
    /// False, with a sentence in `error`, when the database cannot be opened.
    bool Open(const Database::Location& database, std::string& error);

    std::string Mode() const override { return "fleet"; }
    Console::Reply Handle(const Console::Request& request) override;
    void Stop() override { is_stopping_ = true; }

  private:
    Console::Reply Change(const Console::Request& request);
    Console::Reply LookAtRollouts(const std::vector<std::string>& path);
    Console::Reply LookAtHost(const std::string& agent_id, const std::vector<std::string>& what);
    Console::Reply ListHosts();
    Console::Reply ListEvents();
    Console::Reply ListResults();
    Console::Reply ListActs(const Console::User& user);
    Console::Reply AwaitNews(const Console::Request& request);
    bool FindHost(const std::string& agent_id, HostRecord& host);
    Json::Value NewestAlarms(const std::string& agent_id);

    std::atomic<bool> is_stopping_{false};
    std::mutex mutex_;  ///< guards all below
    FleetStore store_;
    UserStore users_;
    RolloutStore rollouts_;
    CentreRequests centre_{store_, users_, rollouts_};
};

}  // namespace Collector
