#pragma once

#include <csignal>
#include <functional>
#include <string>

#include "ctl/client/ControlClient.h"
#include "ctl/commands/Commands.h"

namespace Ctl {

/// Reads reports page by page and, when asked, waits for new ones. One thread.
class ReportFollower {
  public:
    /// Takes one report; false: enough.
    using Sink = std::function<bool(const Json::Value& report)>;

    ReportFollower(const ControlClient& client, const ReportQuery& query, Sink sink);

    /// What is stored now; the exit code.
    int ReadStored();

    /// What is stored since the given time (nothing when none was given), then new ones, until a
    /// signal ends the program or nobody reads its output. Goes on when the agent is restarted.
    int Follow();

  private:
    enum class Page { kMore, kEnd, kEnough, kFailed };

    Page ReadPage(int wait_ms);
    bool StartAtNewest();
    std::string Address(int wait_ms) const;
    long long SinceEpoch() const;

    const ControlClient& client_;
    const ReportQuery query_;
    const Sink sink_;
    long long after_ = -1;  ///< sequence number read last; -1: none yet
    long long since_ = 0;
    Answer failure_;
};

}  // namespace Ctl
