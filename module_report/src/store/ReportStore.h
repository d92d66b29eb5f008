#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "store/DatabaseFiles.h"
#include "store/ErrorThrottle.h"
#include "store/Report.h"
#include "store/ReportDatabase.h"
#include "store/ReportSettings.h"

namespace Engine {

/// The state of the store.
struct StoreStatus {
    bool working = true;  ///< false: the last attempt to store or to open failed
    std::string error;    ///< why, when not working
    std::int64_t stored = 0;
    std::int64_t last_seq = 0;
    std::int64_t bytes = 0;
    std::vector<ExporterState> exporters;
    std::uint64_t reports_stored = 0;  ///< since the start, like the next three
    std::uint64_t reports_failed = 0;
    std::uint64_t reports_lost = 0;  ///< pruned before every exporter had acknowledged them
    std::uint64_t files_set_aside = 0;
};

/// The answer to a reader: the matching reports up to `last_seq`. The reader continues from there.
struct ReportPage {
    std::vector<Report> reports;
    std::int64_t first_seq = 0;  ///< of the oldest report in the store; 0: the store is empty
    std::int64_t last_seq = 0;
    bool more = false;  ///< there may be matches after last_seq
};

/// The durable report store, data/reports.db. Owned by the module. Thread-safe.
///
/// No fault of the file stops it: a failure is counted, logged at most once a minute, and tried
/// again with the next report. A damaged file is set aside and a new one is started; sequence
/// numbers continue to increase.
class ReportStore {
  public:
    using Clock = std::function<std::int64_t()>;  ///< milliseconds since the epoch

    ReportStore(std::string path, const ReportSettings& settings, Clock clock);

    /// Prepares the store before the first report; a failure is logged and tried again later.
    void Open();

    /// Stores `report` and sets its seq and time. On return the report survives a kill of the
    /// agent. False when it is not stored. Takes some ten microseconds, and at most a quarter of a
    /// second while another process locks the file.
    bool Store(Report& report);

    /// Blocks at most `wait` until there is a match. False when the store cannot be read.
    bool Read(const ReportFilter& filter, std::chrono::milliseconds wait, ReportPage& page);

    /// Forgets the exporters whose names begin so: nobody reads for them any more.
    bool ForgetExporters(const std::string& prefix);

    /// Records that `exporter` has all reports up to `seq`; never decreases, nor passes the last
    /// report. False when it cannot be recorded.
    bool Acknowledge(const std::string& exporter, std::int64_t seq);

    /// The last sequence number that it has acknowledged; 0 for none.
    bool AckedSeq(const std::string& exporter, std::int64_t& seq);

    /// Keeps the limits of age and size, and writes the write-ahead log to the file. A task calls
    /// it every few seconds; it blocks senders for a few milliseconds at most.
    void Maintain();

    StoreStatus Status();

    /// Ends all waiting readers, now and later.
    void StopWaiting();

  private:
    using Operation = std::function<bool(ReportDatabase&)>;

    // With mutex_ held:
    bool Attempt(ErrorThrottle& throttle, const char* what, const Operation& operation);
    bool OpenDatabase();
    void CloseDatabase();
    bool SetAside(const std::string& error);
    void RecordFailure(ErrorThrottle& throttle, const char* what, const std::string& error);
    bool ReadPage(ReportDatabase& database, const ReportFilter& filter, ReportPage& page) const;

    // Without it:
    void DropReplacedFile();
    bool PruneStep();
    void ReleaseSpace();
    void Checkpoint();

    const std::string path_;
    const ReportSettings settings_;
    const Clock clock_;

    std::mutex mutex_;  ///< guards what follows, down to stopping_
    std::condition_variable changed_;
    std::unique_ptr<ReportDatabase> database_;
    FileIdentity identity_;
    ErrorThrottle store_throttle_;  ///< of storing
    ErrorThrottle other_throttle_;  ///< of all other operations: a full disk can still be read
    std::string error_;
    std::int64_t last_seq_ = 0;
    std::int64_t rows_ = 0;
    std::uint64_t stored_ = 0;
    std::uint64_t failed_ = 0;
    std::uint64_t lost_ = 0;
    std::uint64_t set_aside_ = 0;
    bool stopping_ = false;

    /// Taken after mutex_. A checkpoint holds only this one, so that senders do not wait for the
    /// disk; closing or renaming the file needs it too.
    std::mutex checkpoint_mutex_;
    SqliteConnection checkpointer_;
};

}  // namespace Engine
