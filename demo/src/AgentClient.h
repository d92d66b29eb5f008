#pragma once

#include <json/value.h>

#include <chrono>
#include <string>

#include "ctl/client/ControlClient.h"

namespace Demo {

/// Asks the agent over its control socket. One thread.
class AgentClient {
  public:
    explicit AgentClient(const std::string& socket_path) : control_(socket_path) {}

    /// The answer to GET `address`; false when no agent answers within `timeout` (counted in whole
    /// seconds) or it refuses: `error` then says why.
    bool Get(const std::string& address, std::chrono::milliseconds timeout, Json::Value& answer,
             std::string& error) const;

  private:
    Ctl::ControlClient control_;
};

}  // namespace Demo
