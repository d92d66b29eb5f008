#pragma once

#include <console/ConsoleServer.h>
#include <fleet/Backoff.h>
#include <fleet/BrokerClient.h>
#include <sdk/files/FileDescriptor.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/CollectorSettings.h"
#include "centre/Rollouts.h"
#include "console/FleetBackend.h"
#include "console/UserAccess.h"
#include "notify/FleetNotifier.h"
#include "service/Intake.h"
#include "store/FleetStore.h"

namespace Collector {

/// The service: one connection to the broker and one database on one thread, and the console on
/// threads of its own.
class CollectorService {
  public:
    explicit CollectorService(CollectorSettings settings);

    /// Runs until SIGTERM or SIGINT; the exit code of the process.
    int Run();

  private:
    bool OpenStore();
    bool StartConsole();
    bool StartNotifier();
    void RunConnection();
    bool Begin(std::string& error);
    bool Listen();
    bool Pass(std::string& error);
    void StoreAndAnswer();
    void Reply(const std::vector<Collector::Reply>& replies);
    void NoteStore(bool is_working);
    void Housekeeping();
    void SayAlive();
    void WriteMetrics();
    bool Stopped(std::int64_t wait_ms) const;

    const CollectorSettings settings_;
    FleetStore store_;
    Intake intake_;
    RolloutStore rollout_store_;
    Rollouts rollouts_;
    UserAccess access_;
    FleetBackend backend_;
    std::unique_ptr<Console::ConsoleServer> console_;
    SDK::FileDescriptor signals_;
    std::unique_ptr<Fleet::BrokerClient> broker_;
    std::unique_ptr<FleetNotifier> notifier_;  ///< null: nobody is told
    bool listening_ = false;
    bool is_storing_ = true;            ///< the last transaction did not fail
    std::atomic<bool> is_well_{false};  ///< listens and stores; for the heartbeat
    std::int64_t listening_since_ms_ = 0;
    std::int64_t alive_due_ms_ = 0;
    std::int64_t rollouts_due_ms_ = 0;
    std::int64_t prune_due_ms_ = 0;
    std::int64_t metrics_due_ms_ = 0;
    bool has_metrics_ = false;  ///< the file is written
    Fleet::Backoff backoff_;
};

}  // namespace Collector
