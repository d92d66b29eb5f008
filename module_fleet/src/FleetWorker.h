#pragma once

#include <fleet/Backoff.h>
#include <fleet/BrokerClient.h>
#include <json/value.h>
#include <sdk/files/FileDescriptor.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "ActReceiver.h"
#include "FleetSettings.h"
#include "PolicyReceiver.h"
#include "ReportExporter.h"

namespace Engine {

/// Keeps the connection to the broker and lets exporter, receiver and heartbeat use it, on one
/// thread of its own. Status is thread-safe.
class FleetWorker {
  public:
    FleetWorker(FleetSettings settings, const std::string& agent_id);

    /// Ends the thread; takes half a second at most.
    ~FleetWorker();
    FleetWorker(const FleetWorker&) = delete;
    FleetWorker& operator=(const FleetWorker&) = delete;

    /// The member "fleet" of the status document.
    Json::Value Status();

  private:
    void Run();
    void RunConnection();
    bool FindBroker(std::string& error) const;
    bool Begin(std::string& error);
    void Greet();
    void SayGoodbye();
    void Pass(std::int64_t now_ms);
    void Receive(Fleet::Message&& message);
    void PublishState(std::int64_t now_ms);
    void PublishResult(const std::string& feature, const Json::Value& result);
    void PublishActResult(const std::string& number, const Json::Value& result);
    void Publish(Json::Value& status);
    bool WaitForStop(std::chrono::milliseconds time) const;

    const FleetSettings settings_;
    const std::string agent_id_;
    const SDK::FileDescriptor stop_;  ///< eventfd
    ReportExporter exporter_;
    PolicyReceiver policies_;
    ActReceiver acts_;
    std::unique_ptr<Fleet::BrokerClient> broker_;
    std::int64_t state_due_ms_ = 0;
    std::int64_t status_due_ms_ = 0;
    Fleet::Backoff backoff_;
    std::mutex mutex_;    ///< guards status_
    Json::Value status_;  ///< null: nothing has happened yet
    std::thread thread_;
};

}  // namespace Engine
