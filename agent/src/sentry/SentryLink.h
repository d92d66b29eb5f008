#pragma once

#include <framework/QueryRegistry.h>
#include <json/value.h>
#include <sdk/files/FileDescriptor.h>
#include <sentry/Channel.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "sentry/SentrySettings.h"
#include "sentry/SentryStarter.h"

namespace Agent {

/// The agent's side of the sentry, on a thread of its own: connects, starts the sentry where no
/// service manager does, kills one that answers nothing, and connects again. While it lives it
/// answers these queries, on any thread:
///
/// "sentry.request": {"op", …, "wait_ms"} goes to the sentry; {"answer"} or {"error"} comes back
/// after `wait_ms` at most (0: it is sent only). "status.sentry": a part of the status document.
///
/// An event of the sentry is a query of its name ("shield.healed") on the link's thread, with the
/// descriptor of its file as "file" (borrowed; -1: none). All queries that begin with
/// "sentry.tick." are asked when a connection is new and then in each period, with what the sentry
/// said of itself last.
class SentryLink {
  public:
    /// Borrows `queries`. `fault`: what is wrong with the settings; empty: nothing.
    SentryLink(Framework::QueryRegistry& queries, const SentrySettings& settings,
               const std::string& fault);
    ~SentryLink();
    SentryLink(const SentryLink&) = delete;
    SentryLink& operator=(const SentryLink&) = delete;

  private:
    using Clock = std::chrono::steady_clock;

    void Work();
    bool Connect();
    void Serve();
    bool Take(Sentry::Message& message);
    bool Beat();
    void Tick();
    void Lost(const std::string& why);
    void KillGuard();
    bool PauseFor(std::chrono::milliseconds time);
    void SetState(const std::string& state, const std::string& why);
    Json::Value Request(Json::Value request);
    Json::Value Status();

    Framework::QueryRegistry& queries_;
    const SentrySettings settings_;
    SentryStarter starter_;
    std::mutex mutex_;  ///< guards all to thread_
    std::condition_variable changed_;
    bool is_stopping_ = false;
    std::shared_ptr<Sentry::Channel> channel_;  ///< null: not connected
    std::string state_ = "off";
    std::string why_;
    Json::Value rooms_;  ///< what the sentry said of itself last
    unsigned int lost_ = 0;
    Json::UInt64 last_id_ = 0;
    std::map<Json::UInt64, Json::Value> answers_;  ///< null: not there yet
    Clock::time_point heard_;
    SDK::FileDescriptor guard_;  ///< a pidfd of the link's thread
    std::thread thread_;
};

}  // namespace Agent
