#pragma once

#include <csignal>
#include <functional>
#include <string>

#include "ctl/client/ControlClient.h"
#include "ctl/commands/Commands.h"

namespace Ctl {

/// Reads reports page by page and can wait for new ones. Not thread-safe.
class ReportFollower {
  public:
    /// Receives one report; false ends the reading.
    using Sink = std::function<bool(const Json::Value& report)>;

    /// `after_page` is called when a page has been read, at least every few seconds.
    ReportFollower(
        const ControlClient& client, const ReportQuery& query, Sink sink,
        std::function<void()> after_page = [] {});

    /// Reads the stored reports; returns the exit code.
    int ReadStored();

    /// Reads the reports stored since the given time (none without one), then new ones, until a
    /// signal ends the program or standard output is closed. Continues after a restart of the
    /// agent.
    int Follow();

  private:
    enum class Page { kMore, kEnd, kStop, kFailed };

    Page ReadPage(int wait_ms);
    bool StartAtNewest();
    std::string Address(int wait_ms) const;
    long long SinceEpoch() const;

    const ControlClient& client_;
    const ReportQuery query_;
    const Sink sink_;
    const std::function<void()> after_page_;
    long long after_ = -1;  ///< last sequence number read; -1: none yet
    long long since_ = 0;
    Answer failure_;
};

}  // namespace Ctl
