#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sentry/Channel.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "base/Room.h"

namespace Sentry {

/// Listens for the agent and lets the rooms answer it. One agent at a time: a new connection ends
/// the present one. Only root and the sentry's own user may connect. For one thread.
class Service {
  public:
    /// `socket` is removed and made anew, mode 0600. Check Problem(). `is_child`: Run returns when
    /// the agent has disconnected.
    Service(const std::string& socket, std::vector<std::unique_ptr<Room>> rooms, bool is_child);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Why it cannot listen; empty when it can.
    const std::string& Problem() const { return problem_; }

    /// Serves until `stop` is readable.
    void Run(int stop);

  private:
    void Listen();
    void Accept();
    void Read();
    void Handle(const Json::Value& request);
    Json::Value Answer(const Json::Value& request);
    Json::Value Hello(const Json::Value& request);
    Json::Value Status() const;
    void Disconnect();

    const std::string path_;
    const bool is_child_;
    bool was_connected_ = false;
    const std::vector<std::unique_ptr<Room>> rooms_;
    std::string problem_;
    SDK::FileDescriptor listener_;
    std::shared_ptr<Channel> agent_;  ///< null: none is connected
    bool is_greeted_ = false;
};

}  // namespace Sentry
