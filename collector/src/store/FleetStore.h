#pragma once

#include <database/Session.h>
#include <fleet/Report.h>
#include <json/value.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Collector {

/// What the collector knows of one host.
struct HostRecord {
    std::int64_t id = 0;
    std::string agent_id;
    std::string stream;             ///< of the reports; empty: none has arrived
    std::int64_t epoch = 0;         ///< counts how often the numbers began anew
    std::int64_t acknowledged = 0;  ///< every report up to it is stored
    std::int64_t bytes = 0;         ///< of its stored bodies
    std::int64_t first_seen_ms = 0;
    std::int64_t last_seen_ms = 0;
    bool online = false;        ///< as its last state says
    bool silent = false;        ///< nothing arrives; already reported
    std::string state;          ///< its last state, JSON
    std::int64_t revision = 0;  ///< counts SaveHost
};

/// Which reports to list.
struct ReportQuery {
    std::string agent_id;    ///< empty: of all hosts
    std::string kind;        ///< empty: of all kinds
    std::int64_t after = 0;  ///< only those that the collector stored after this row
    std::int64_t limit = 100;
};

/// The database of the collector, SQLite or PostgreSQL. The schema has a version; an older one is
/// migrated when it is opened. Operations return false on failure; Error says why. Not thread-safe.
///
/// A transaction that is committed survives a crash of the machine. In a transaction an operation
/// without a result may fail as late as Commit.
class FleetStore {
  public:
    /// Makes the file (mode 0640) and the tables when they are missing.
    bool Open(const Database::Location& location);

    /// Opens an existing database to read it.
    bool OpenExisting(const Database::Location& location);

    bool Begin();
    bool Commit();
    void Rollback();

    bool ReadHosts(std::vector<HostRecord>& hosts);
    bool AddHost(HostRecord& host);  ///< sets its id
    /// In a transaction, which fails when another process has saved the host since it was read.
    bool SaveHost(const HostRecord& host);

    /// In a transaction.
    bool AddReport(const HostRecord& host, const Fleet::Report& report, std::int64_t now_ms);

    enum class Match { kNone, kSame, kOther, kFailed };

    /// Compares `report` with the newest stored one of that host and number.
    Match Compare(const HostRecord& host, const Fleet::Report& report);

    /// `host_id` 0: of the collector itself.
    bool AddEvent(std::int64_t host_id, const std::string& kind, const std::string& text,
                  std::int64_t now_ms);
    bool SaveResult(std::int64_t host_id, const std::string& feature, const std::string& result,
                    std::int64_t now_ms);

    /// The newest answers of each host are kept.
    bool SaveActResult(std::int64_t host_id, std::int64_t number, const std::string& result,
                       std::int64_t now_ms);

    /// A named value of the collector itself, such as when it was last alive.
    bool SetFact(const std::string& name, std::int64_t value);
    bool ReadFact(const std::string& name, std::int64_t& value);  ///< 0 when it is missing

    /// Called for each removed report.
    using Removed = std::function<void(std::int64_t host_id, std::int64_t bytes)>;

    /// Removes at most `max_rows` reports that arrived before `time_ms`; events, too.
    bool PruneOlderThan(std::int64_t time_ms, int max_rows, const Removed& removed);
    bool PruneHost(std::int64_t host_id, int max_rows, const Removed& removed);

    using EachRow = std::function<bool(const Json::Value& row)>;  ///< false: stop

    /// Oldest first; without `after` the newest `limit`.
    bool ListReports(const ReportQuery& query, const EachRow& each);
    bool ListEvents(std::int64_t limit, const EachRow& each);
    bool ListResults(const EachRow& each);
    bool ListActResults(std::int64_t limit, const EachRow& each);  ///< the newest first

    /// At most `limit` after that id, oldest first. Events have an "id", too; those of the
    /// collector itself have no "agent_id".
    bool ReadReportsAfter(std::int64_t id, std::int64_t limit, const EachRow& each);
    bool ReadEventsAfter(std::int64_t id, std::int64_t limit, const EachRow& each);
    bool LastReport(std::int64_t& id);  ///< 0 when there is none
    bool LastEvent(std::int64_t& id);

    /// Empty for an unknown host.
    bool ReadState(const std::string& agent_id, std::string& state);

    // Named texts, such as how far a channel of notifications has come.
    bool ReadMark(const std::string& name, std::optional<std::string>& value);
    bool SetMark(const std::string& name, const std::string& value);
    bool RemoveMark(const std::string& name);

    /// Copies an SQLite database to a new file, as of one moment.
    bool CopyTo(const std::string& path);

    /// Bytes that the database uses; 0: unknown.
    std::int64_t Size();

    std::string Error() const { return session_ == nullptr ? error_ : session_->Error(); }

  private:
    bool ReadNumber(const std::string& sql, std::int64_t& number);
    bool Prune(const std::string& sql, const Database::Values& values, const Removed& removed);

    std::unique_ptr<Database::Session> session_;
    std::string error_;  ///< of opening
};

}  // namespace Collector
