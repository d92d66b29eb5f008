#pragma once

#include <fleet/BrokerClient.h>
#include <fleet/Report.h>
#include <fleet/Topics.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "base/CollectorSettings.h"
#include "service/HostTable.h"
#include "store/FleetStore.h"

namespace Collector {

/// Counters since the start.
struct IntakeCounters {
    std::uint64_t stored = 0;
    std::uint64_t repeated = 0;   ///< were stored already
    std::uint64_t too_early = 0;  ///< an earlier one is missing; asked for again
    std::uint64_t refused = 0;    ///< malformed, or beyond a limit
};

/// An acknowledgement and the host that it is for.
struct Reply {
    std::string agent_id;
    Fleet::Acknowledgement acknowledgement;
};

/// Stores what hosts send: a batch of messages in one transaction. A report is stored when it
/// follows the host's last stored one, so that a host's reports have no gap and no duplicate. What
/// a host sends is hostile. Not thread-safe.
class Intake {
  public:
    /// Borrows the store, which is open.
    Intake(FleetStore& store, const CollectorSettings& settings);

    /// Reads the hosts from the store.
    bool Load() { return hosts_.Load(); }

    /// Keeps the message for the next Store.
    void Add(Fleet::Message&& message);
    bool IsEmpty() const { return batch_.empty(); }
    bool IsFull() const;
    bool IsLarge() const;  ///< more arrives than a few hosts send

    /// Stores the batch. Empty replies and false when the store fails: nothing of the batch is
    /// stored then, and hosts will send it again. `now_ms`: since the epoch.
    bool Store(std::int64_t now_ms, std::vector<Reply>& replies);

    /// Asks every known host for what is not stored, after a new connection.
    std::vector<Reply> AskForMissing();

    /// Reports the hosts that are silent; `since_ms`: when this collector began to listen.
    bool CheckSilence(std::int64_t now_ms, std::int64_t since_ms);

    /// Keeps the limits of age and size by one step.
    bool Prune(std::int64_t now_ms);

    const IntakeCounters& Counters() const { return counters_; }

    /// Why the last of the operations above failed.
    const std::string& Error() const { return error_; }

  private:
    struct Item {
        Fleet::Topic topic;
        Fleet::Message message;
    };

    bool StoreBatch(std::int64_t now_ms);
    bool Undo();
    bool StoreItem(Item& item, std::int64_t now_ms);
    bool StoreResult(const HostRecord& host, const Item& item, std::int64_t now_ms);
    bool StoreReport(HostRecord& host, const Fleet::Report& report, std::int64_t now_ms);
    bool AddReport(HostRecord& host, const Fleet::Report& report, std::int64_t now_ms);
    bool BeginStream(HostRecord& host, const Fleet::Report& report, std::int64_t now_ms);
    bool Renumber(HostRecord& host, const Fleet::Report& report, std::int64_t now_ms);
    bool StoreState(HostRecord& host, const Fleet::Message& message, std::int64_t now_ms);
    bool SetSilent(HostRecord& host, bool silent, const std::string& text, std::int64_t now_ms);
    bool AddEvent(const HostRecord& host, const std::string& kind, const std::string& text,
                  std::int64_t now_ms);
    bool KeepWithinSize(HostRecord& host);
    void Removed(std::int64_t host_id, std::int64_t bytes);
    void Answer(const HostRecord& host, const std::string& stream, std::int64_t seq, bool again);

    FleetStore& store_;
    const CollectorSettings settings_;
    HostTable hosts_;
    std::vector<Item> batch_;
    std::size_t batch_bytes_ = 0;
    std::map<std::string, int> reports_in_batch_;            ///< by agent id
    std::map<std::string, Fleet::Acknowledgement> answers_;  ///< by agent id
    std::map<std::int64_t, std::int64_t> last_event_ms_;     ///< by host id
    IntakeCounters counters_;
    std::string error_;
};

}  // namespace Collector
