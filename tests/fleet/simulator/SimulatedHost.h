#pragma once

#include <fleet/Backoff.h>
#include <fleet/BrokerClient.h>
#include <json/value.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ReportExporter.h"

namespace test {

/// An agent of a fleet without a tree: the exporter and the connection of the fleet module, and a
/// report store that is a number. Not thread-safe. Times are monotonic milliseconds.
class SimulatedHost {
  public:
    SimulatedHost(const std::string& agent_id, Fleet::BrokerSettings settings);
    SimulatedHost(SimulatedHost&&) = delete;

    /// Alarms that the next Step may send.
    void Raise(std::int64_t count, std::int64_t now_ms);

    /// Connects when that is due, and handles what there is without waiting.
    void Step(std::int64_t now_ms);

    /// -1: none.
    int Socket() const { return broker_ ? broker_->Socket() : -1; }
    bool IsConnected() const { return broker_ && broker_->IsConnected(); }

    const std::string& AgentId() const { return agent_id_; }
    std::int64_t Raised() const { return raised_; }
    std::int64_t Acknowledged() const { return exporter_.State().acknowledged; }

    /// From an alarm to its acknowledgement; forgets them.
    std::vector<std::int64_t> TakeLatencies() { return std::move(latencies_ms_); }

    /// The content of a report; a page of some kilobytes has such a difference.
    static std::string BodyOf(const std::string& agent_id, std::int64_t seq);

  private:
    bool Ask(const std::string& query, const Json::Value& request, Json::Value& answer);
    void Connect(std::int64_t now_ms);
    void Greet(std::int64_t now_ms);
    void PublishState(std::int64_t now_ms);
    void Receive(const Fleet::Message& message);
    void Lose(std::int64_t now_ms);

    const std::string agent_id_;
    const Fleet::BrokerSettings settings_;
    Engine::ReportExporter exporter_;
    Fleet::Backoff backoff_;
    std::unique_ptr<Fleet::BrokerClient> broker_;  ///< null: waits for the next attempt
    bool is_greeted_ = false;
    std::string stream_;  ///< the exporter's entry in the store
    std::int64_t mark_ = 0;
    std::int64_t raised_ = 0;
    std::int64_t now_ms_ = 0;
    std::int64_t connect_due_ms_ = 0;
    std::int64_t begun_ms_ = 0;
    std::int64_t state_due_ms_ = 0;
    std::deque<std::pair<std::int64_t, std::int64_t>> waiting_;  ///< number and time of alarms
    std::vector<std::int64_t> latencies_ms_;
};

}  // namespace test
