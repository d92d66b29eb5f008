#pragma once

#include <framework/QueryRegistry.h>
#include <notify/ChannelWorker.h>
#include <notify/Heartbeat.h>
#include <notify/Settings.h>
#include <sdk/time/CommandInterrupter.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Agent {

/// Tells people and programs about alarms: the channels of the section "notify", the heartbeat and
/// the hook after restores. Answers the queries "status.notify" and "notify" while it lives.
/// Nothing waits for it. Main thread only, except where it says so.
class Notifier {
  public:
    /// Answers the status document; any thread.
    using StatusOf = std::function<Json::Value()>;

    /// Starts a thread for each channel. Borrows `queries`. `folder`: where marks are kept; `hook`:
    /// the program that runs after restores, if it exists.
    Notifier(Framework::QueryRegistry& queries, const Notify::Settings& settings,
             const std::vector<Notify::SettingsFault>& faults, const Notify::Origin& origin,
             const std::string& folder, const std::string& hook, StatusOf status,
             const Notify::ChannelWorker::Times& times = {});
    /// Ends running deliveries; they are repeated after the next start.
    ~Notifier();
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;

  private:
    Json::Value Status() const;
    Json::Value Answer(const Json::Value& request);
    Json::Value Test(const std::string& channel);
    Json::Value TestOne(const std::string& name, const std::function<std::string()>& test);
    std::vector<std::string> Roots() const;

    Framework::QueryRegistry& queries_;
    const Notify::Settings settings_;
    const std::vector<Notify::SettingsFault> faults_;
    const StatusOf status_;
    SDK::CommandInterrupter test_interrupter_;
    std::vector<Notify::ChannelPlan> plans_;
    std::vector<std::unique_ptr<Notify::ChannelWorker>> workers_;
    std::unique_ptr<Notify::Heartbeat> heartbeat_;  ///< null: off
};

}  // namespace Agent
