#pragma once

#include <json/value.h>
#include <sdk/time/CommandInterrupter.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "notify/Settings.h"

namespace Notify {

/// Asks for a URL once a period on a thread of its own, as long as the protection works: a service
/// that no longer hears of this host raises the alarm. Status and BeginStop are thread-safe.
class Heartbeat {
  public:
    /// `is_alive`: whether to send; runs on the heartbeat's thread.
    Heartbeat(const Settings::Heartbeat& settings, std::function<bool()> is_alive);
    ~Heartbeat();
    Heartbeat(const Heartbeat&) = delete;
    Heartbeat& operator=(const Heartbeat&) = delete;

    void BeginStop();

    /// For the status document, as of a channel.
    Json::Value Status() const;

  private:
    void Work();
    void BeatOnce();

    const Settings::Heartbeat settings_;
    const std::function<bool()> is_alive_;
    SDK::CommandInterrupter interrupter_;
    mutable std::mutex mutex_;  ///< guards the rest
    std::condition_variable stop_;
    bool is_stopping_ = false;
    Json::Value status_{Json::objectValue};
    std::thread thread_;
};

}  // namespace Notify
