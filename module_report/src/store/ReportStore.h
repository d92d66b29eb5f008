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

/// How the store is doing.
struct StoreStatus {
    bool working = true;  ///< false: the last attempt to store or to open failed
    std::string error;    ///< why, when not working
    std::int64_t stored = 0;
    std::int64_t last_seq = 0;
    std::int64_t bytes = 0;
    std::vector<ExporterState> exporters;
    std::uint64_t reports_stored = 0;  ///< since the start, as the next three
    std::uint64_t reports_failed = 0;
    std::uint64_t reports_lost = 0;  ///< pruned before every exporter had acknowledged them
    std::uint64_t files_set_aside = 0;
};

/// What a reader gets: the matching reports up to and including `last_seq`, from which the reader
/// goes on.
struct ReportPage {
    std::vector<Report> reports;
    std::int64_t last_seq = 0;
    bool more = false;  ///< there are matches beyond last_seq, or there may be
};

/// The durable report store, data/reports.db. Any thread; owned by the module.
///
/// No fault of the file ends it: what fails is counted, logged now and then, and tried again with
/// the next report. A damaged file is set aside and a fresh one begun; sequence numbers go on
/// rising.
class ReportStore {
  public:
    using Clock = std::function<std::int64_t()>;  ///< milliseconds since the epoch

    ReportStore(std::string path, const ReportSettings& settings, Clock clock);

    /// Makes the store ready ahead of the first report; a failure is logged, not final.
    void Open();

    /// Stores `report` and sets its seq and time. Does not return before a killed agent would find
    /// it again. False when it is not stored. Takes some ten microseconds, and at most a quarter of
    /// a second while another process locks the file.
    bool Store(Report& report);

    /// Reads; waits at most `wait` until there is something to read. False when the store cannot be
    /// read.
    bool Read(const ReportFilter& filter, std::chrono::milliseconds wait, ReportPage& page);

    /// Notes that `exporter` has all reports up to `seq`; never goes back, nor past the last one.
    /// False when it cannot be noted.
    bool Acknowledge(const std::string& exporter, std::int64_t seq);

    /// How far it has acknowledged; 0 when it never did.
    bool AckedSeq(const std::string& exporter, std::int64_t& seq);

    /// Keeps the bounds of age and size, and moves the write-ahead log into the file. For a task to
    /// call every few seconds; holds up senders for a few milliseconds at most.
    void Maintain();

    StoreStatus Status();

    /// Ends all waiting readers, now and later.
    void StopWaiting();

  private:
    using Operation = std::function<bool(ReportDatabase&)>;

    // With mutex_ held:
    bool Attempt(ErrorThrottle& pacer, const char* what, const Operation& operation);
    bool OpenDatabase();
    void CloseDatabase();
    bool SetAside(const std::string& error);
    void NoteFailure(ErrorThrottle& pacer, const char* what, const std::string& error);
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
    ErrorThrottle store_pacer_;  ///< of storing
    ErrorThrottle other_pacer_;  ///< of everything else: a full disk can still be read
    std::string error_;
    std::int64_t last_seq_ = 0;
    std::int64_t rows_ = 0;
    std::uint64_t stored_ = 0;
    std::uint64_t failed_ = 0;
    std::uint64_t lost_ = 0;
    std::uint64_t set_aside_ = 0;
    bool stopping_ = false;

    /// Taken after mutex_. Whoever moves the write-ahead log into the file holds it alone, so that
    /// senders do not wait for the disk; whoever closes or renames the file holds it too.
    std::mutex checkpoint_mutex_;
    SqliteConnection checkpointer_;
};

}  // namespace Engine
