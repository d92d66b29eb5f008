#pragma once

#include <console/Backend.h>

#include <atomic>
#include <string>
#include <vector>

#include "ctl/client/ControlClient.h"
#include "ctl/console/VerifyJobs.h"

namespace Ctl {

/// Answers the console's requests from the agent of this host, and carries out decisions through
/// it. Thread-safe.
class HostBackend : public Console::Backend {
  public:
    explicit HostBackend(ControlClient client) : client_(std::move(client)) {}

    std::string Mode() const override { return "host"; }
    Console::Reply Handle(const Console::Request& request) override;
    void Stop() override;

  private:
    Console::Reply Look(const Console::Request& request, const std::vector<std::string>& what);
    Console::Reply LookAtAlarms(const std::vector<std::string>& what) const;
    Console::Reply Change(const Console::Request& request, const std::vector<std::string>& what);
    Console::Reply Decide(const std::string& action, const Console::Request& request) const;
    Console::Reply ChangePause(const std::string& action, const Console::Request& request) const;
    Console::Reply TakePolicy(const Console::Request& request, const std::string& feature,
                              const std::string& action) const;
    Console::Reply AwaitNews(const Console::Request& request) const;
    Console::Reply ShowHost(bool in_full) const;
    Console::Reply ShowPolicy(const std::string& feature) const;

    const ControlClient client_;
    VerifyJobs jobs_;
    std::atomic<bool> is_stopping_{false};
};

}  // namespace Ctl
