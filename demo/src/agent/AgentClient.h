#pragma once

#include <json/value.h>

#include <chrono>
#include <string>

#include "ctl/client/ControlClient.h"

namespace Demo {

/// Sends requests to the agent's control socket. Not thread-safe.
class AgentClient {
  public:
    explicit AgentClient(const std::string& socket_path) : control_(socket_path) {}

    /// The answer to GET `address`. Blocks at most `timeout` (in whole seconds). False when no
    /// agent answers or it refuses: `error` says why.
    bool Get(const std::string& address, std::chrono::milliseconds timeout, Json::Value& answer,
             std::string& error) const;

  private:
    Ctl::ControlClient control_;
};

}  // namespace Demo
