#pragma once

#include <json/value.h>
#include <notify/ChannelWorker.h>
#include <notify/Heartbeat.h>
#include <notify/Settings.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "store/FleetStore.h"

namespace Collector {

/// Tells people of incidents and of what happens to hosts, by mail and webhook, and another service
/// that the collector works. Each channel has two threads, one for incidents and one for hosts,
/// each with a mark in the store: a start or an outage loses nothing. One thread only.
class FleetNotifier {
  public:
    /// Channels follow that database; nothing runs before Start.
    FleetNotifier(Notify::Settings settings, Database::Location database);

    /// `is_alive`: whether to send the heartbeat; runs on a thread of its own. False with `error`.
    bool Start(const std::function<bool()>& is_alive, std::string& error);

    /// Ends running deliveries; they are repeated after the next start.
    ~FleetNotifier();
    FleetNotifier(const FleetNotifier&) = delete;
    FleetNotifier& operator=(const FleetNotifier&) = delete;

    /// Sends a test through every channel: [{"channel", "to", "error"}]; blocks.
    Json::Value Test() const;

    /// Logs which channels have begun or ceased to fail since the last call.
    void LogChanges();

  private:
    bool StartOne(const Notify::ChannelPlan& plan, bool is_of_hosts, std::string& error);
    bool ForgetOthers(std::string& error) const;
    std::vector<Notify::ChannelPlan> Plans(bool is_of_hosts) const;

    const Notify::Settings settings_;
    const Database::Location database_;
    std::vector<std::unique_ptr<Notify::ChannelWorker>> workers_;
    std::unique_ptr<Notify::Heartbeat> heartbeat_;  ///< null: off
    std::map<std::string, bool> was_working_;       ///< by channel
};

}  // namespace Collector
