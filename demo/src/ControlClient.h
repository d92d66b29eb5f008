#pragma once

#include <json/value.h>

#include <chrono>
#include <string>

namespace Demo {

/// Asks the agent over its control socket. Any thread.
class ControlClient {
  public:
    explicit ControlClient(std::string socket_path) : socket_path_(std::move(socket_path)) {}

    /// The answer to GET `target`; false when no agent answers within `timeout` or it refuses,
    /// `error` then says why.
    bool Get(const std::string& target, std::chrono::milliseconds timeout, Json::Value& answer,
             std::string& error) const;

  private:
    std::string socket_path_;
};

}  // namespace Demo
