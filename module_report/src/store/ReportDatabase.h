#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "store/Report.h"
#include "store/Sqlite.h"

namespace Engine {

/// How far an exporter has come.
struct ExporterState {
    std::string name;
    std::int64_t acked_seq = 0;
};

/// What one pruning step took away.
struct Pruned {
    std::int64_t rows = 0;
    std::int64_t unacknowledged = 0;  ///< of them, those that some exporter had not acknowledged
};

/// The report database: its schema and its statements, one connection. The store owns it and lets
/// one thread in at a time. Operations give false on failure; Error and Fault then tell what it
/// was, and nothing has been changed.
class ReportDatabase {
  public:
    enum class Fault {
        kTransient,   ///< locked by another process or the disk is full; may work again as it is
        kConnection,  ///< worth opening anew: I/O error, read-only, cannot be opened
        kDamaged,     ///< the file is no report database, or a damaged one
    };

    /// Opens `path`, makes file (mode 0600) and tables where missing. A file that a killed process
    /// left behind is recovered by this.
    bool Open(const std::string& path);

    /// Stores `report` for good as far as this process's end is concerned, and sets its seq.
    bool Insert(Report& report);

    /// Ascending by sequence number; stops early when the bodies reach `max_bytes`. `complete`:
    /// neither limit nor max_bytes cut off newer reports.
    bool Read(const ReportFilter& filter, std::size_t max_bytes, std::vector<Report>& reports,
              bool& complete);

    /// Removes at most `max_rows` reports older than `time_ms`.
    bool PruneOlderThan(std::int64_t time_ms, int max_rows, Pruned& pruned);

    /// Removes the `max_rows` oldest reports.
    bool PruneOldest(int max_rows, Pruned& pruned);

    /// Gives at most `pages` unused pages back to the file system.
    bool ReleasePages(int pages);

    /// Sets how far an exporter has acknowledged.
    bool SetAcknowledged(const std::string& exporter, std::int64_t seq);
    bool ReadExporters(std::vector<ExporterState>& exporters);

    /// Lets the next sequence number be greater than `seq`.
    bool ContinueAfter(std::int64_t seq);

    bool LastSeq(std::int64_t& seq);
    bool CountRows(std::int64_t& rows);

    /// Bytes of the file, and of them those in use.
    bool Sizes(std::int64_t& file_bytes, std::int64_t& used_bytes);

    Fault FaultKind() const;
    const std::string& Error() const { return error_; }

  private:
    bool PrepareStatements();
    bool Check(int code);
    bool Value(SqliteStatement& statement, std::int64_t& value);
    bool Prune(SqliteRun& run, Pruned& pruned);
    bool LowestAcknowledged(std::int64_t& seq);

    SqliteConnection connection_;
    SqliteStatement insert_, last_seq_, count_, prune_old_, prune_first_, lowest_ack_;
    SqliteStatement page_count_, free_pages_, page_size_;
    bool opened_ = false;
    int code_ = SQLITE_OK;
    std::string error_;
};

}  // namespace Engine
