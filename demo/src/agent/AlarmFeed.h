#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/AgentClient.h"

namespace Demo {

/// One tamper alarm as the agent stores it.
struct Alarm {
    std::int64_t seq = 0;
    std::string path;  ///< without a trailing "/"
    std::string action;
    std::string outcome;
    double duration_ms = -1;  ///< measured by the agent; negative: unknown
};

/// Reads the agent's alarms from its control socket, each once and in order. Not thread-safe.
class AlarmFeed {
  public:
    explicit AlarmFeed(const std::string& socket_path) : client_(socket_path) {}

    /// Later alarms count. False when the agent does not answer; `error` says why.
    bool Start(std::string& error);

    /// The first alarm since `SkipSeen` whose path makes `matches` true; blocks at most `deadline`.
    std::optional<Alarm> WaitFor(const std::function<bool(const std::string&)>& matches,
                                 std::chrono::milliseconds deadline);

    /// The next WaitFor ignores the alarms seen so far.
    void SkipSeen() { seen_ = alarms_.size(); }

    const std::vector<Alarm>& Alarms() const { return alarms_; }

    /// Reads new alarms; blocks at most `wait` for the first one. False when the agent does not
    /// answer.
    bool Fetch(std::chrono::milliseconds wait, std::string& error);

  private:
    void Keep(const Json::Value& report);

    AgentClient client_;
    std::int64_t last_seq_ = 0;
    std::vector<Alarm> alarms_;
    std::size_t seen_ = 0;
};

}  // namespace Demo
