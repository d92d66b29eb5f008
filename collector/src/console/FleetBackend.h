#pragma once

#include <console/Backend.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "store/FleetStore.h"
#include "store/UserStore.h"

namespace Collector {

/// Answers the console's requests from the collector's database, which it only reads. Thread-safe.
class FleetBackend : public Console::Backend {
  public:
    /// False, with a sentence in `error`, when the database cannot be opened.
    bool Open(const Database::Location& database, std::string& error);

    std::string Mode() const override { return "fleet"; }
    Console::Reply Handle(const Console::Request& request) override;
    void Stop() override { is_stopping_ = true; }

  private:
    Console::Reply LookAtHost(const std::string& agent_id, const std::vector<std::string>& what);
    Console::Reply ListHosts();
    Console::Reply ListEvents();
    Console::Reply ListResults();
    Console::Reply ListActs(const Console::User& user);
    Console::Reply AwaitNews(const Console::Request& request);
    bool FindHost(const std::string& agent_id, HostRecord& host);
    Json::Value NewestAlarms(const std::string& agent_id);

    std::atomic<bool> is_stopping_{false};
    std::mutex mutex_;  ///< guards the two below
    FleetStore store_;
    UserStore users_;
};

}  // namespace Collector
