#pragma once

#include <database/Sqlite.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "store/Report.h"

namespace Engine {

using Database::SqliteConnection;
using Database::SqliteRun;
using Database::SqliteStatement;

/// How far an exporter has acknowledged.
struct ExporterState {
    std::string name;
    std::int64_t acked_seq = 0;
};

/// The result of one pruning step.
struct Pruned {
    std::int64_t rows = 0;
    std::int64_t unacknowledged = 0;  ///< those of them that some exporter had not acknowledged
};

/// The report database: its schema and statements, on one connection. Owned by the store, whose
/// lock guards it; not thread-safe. Operations return false on failure and change nothing then;
/// Error and FaultKind describe the failure.
class ReportDatabase {
  public:
    enum class Fault {
        kTransient,   ///< locked by another process, or the disk is full; may work again
        kConnection,  ///< may work after opening again: I/O error, read-only, cannot be opened
        kDamaged,     ///< the file is damaged or not a report database
    };

    /// Opens `path`; creates the file (mode 0600) and tables when missing. Recovers a file that a
    /// killed process left behind.
    bool Open(const std::string& path);

    /// Stores `report`, which then survives the end of this process, and sets its seq.
    bool Insert(Report& report);

    /// Reads in ascending order; stops when the bodies reach `max_bytes`. `complete`: neither limit
    /// nor max_bytes cut off newer reports.
    bool Read(const ReportFilter& filter, std::size_t max_bytes, std::vector<Report>& reports,
              bool& complete);

    /// Removes at most `max_rows` reports older than `time_ms`.
    bool PruneOlderThan(std::int64_t time_ms, int max_rows, Pruned& pruned);

    /// Removes the `max_rows` oldest reports.
    bool PruneOldest(int max_rows, Pruned& pruned);

    /// Returns at most `pages` unused pages to the file system.
    bool ReleasePages(int pages);

    /// Sets how far an exporter has acknowledged.
    bool SetAcknowledged(const std::string& exporter, std::int64_t seq);
    bool ReadExporters(std::vector<ExporterState>& exporters);
    /// Removes those whose names begin so.
    bool RemoveExporters(const std::string& prefix);

    /// Makes the next sequence number greater than `seq`.
    bool ContinueAfter(std::int64_t seq);

    bool LastSeq(std::int64_t& seq);
    /// Of the oldest report; 0 when there is none.
    bool FirstSeq(std::int64_t& seq);
    bool CountRows(std::int64_t& rows);

    /// Size of the file in bytes, and the part in use.
    bool Sizes(std::int64_t& file_bytes, std::int64_t& used_bytes);

    Fault FaultKind() const;
    const std::string& Error() const { return error_; }

  private:
    bool AddMissingColumns();
    bool AddMissingColumn(const std::string& name);
    bool PrepareStatements();
    bool Check(int code);
    bool Value(SqliteStatement& statement, std::int64_t& value);
    bool Prune(SqliteRun& run, Pruned& pruned);
    bool LowestAcknowledged(std::int64_t& seq);

    SqliteConnection connection_;
    SqliteStatement insert_, first_seq_, last_seq_, count_, prune_old_, prune_first_, lowest_ack_;
    SqliteStatement page_count_, free_pages_, page_size_;
    bool opened_ = false;
    int code_ = SQLITE_OK;
    std::string error_;
};

}  // namespace Engine
