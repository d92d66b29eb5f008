#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "AgentClient.h"

namespace Demo {

/// One tamper alarm as the agent keeps it.
struct Alarm {
    std::int64_t seq = 0;
    std::string path;  ///< without a trailing "/"
    std::string action;
    std::string outcome;
    double duration_ms = -1;  ///< the agent's own measure; negative when it gives none
};

/// Reads the agent's alarms from its control socket, each once and in order. One thread.
class AlarmFeed {
  public:
    explicit AlarmFeed(const std::string& socket_path) : client_(socket_path) {}

    /// From here on alarms count. False when the agent does not answer; `error` says why.
    bool Start(std::string& error);

    /// The first alarm since `Mark` for whose path `matches` is true; blocks at most `deadline`.
    std::optional<Alarm> WaitFor(const std::function<bool(const std::string&)>& matches,
                                 std::chrono::milliseconds deadline);

    /// Alarms seen so far are passed over by the next WaitFor.
    void Mark() { mark_ = alarms_.size(); }

    const std::vector<Alarm>& Alarms() const { return alarms_; }

    /// Fetches what has come since the last call; waits at most `wait` for the first. False when
    /// the agent does not answer.
    bool Fetch(std::chrono::milliseconds wait, std::string& error);

  private:
    void Keep(const Json::Value& report);

    AgentClient client_;
    std::int64_t last_seq_ = 0;
    std::vector<Alarm> alarms_;
    std::size_t mark_ = 0;
};

}  // namespace Demo
