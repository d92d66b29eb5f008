// Owns one connection to the report database, its schema and its statements. Must not decide when
// to prune, reopen or set a file aside (ReportStore.cpp does). Runs on the thread that holds the
// store's lock. Each change is one statement and thus one transaction.

#include "store/ReportDatabase.h"

#include <algorithm>
#include <limits>

namespace Engine {
namespace {

constexpr mode_t kMode = 0600;
constexpr int kBusyTimeoutMs = 250;  // upper bound of a sender's wait for another process

// Command reports are rare: their index finds them and costs an alarm nothing. Incremental vacuum
// can only be chosen before the first table exists. The store does checkpoints; this limit only
// holds when it cannot.
constexpr const char* kSetUp =
    "PRAGMA auto_vacuum=INCREMENTAL;"
    "PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=NORMAL;"
    "PRAGMA temp_store=MEMORY;"
    "PRAGMA wal_autocheckpoint=8192;"
    "PRAGMA journal_size_limit=16777216;"
    "CREATE TABLE IF NOT EXISTS reports("
    "seq INTEGER PRIMARY KEY AUTOINCREMENT, time_ms INTEGER NOT NULL, kind TEXT NOT NULL,"
    "name TEXT NOT NULL, body BLOB NOT NULL, outcome TEXT NOT NULL, duration_ms REAL,"
    "evidence TEXT NOT NULL DEFAULT '', who TEXT NOT NULL DEFAULT '');"
    "CREATE INDEX IF NOT EXISTS reports_by_time ON reports(time_ms);"
    "DROP INDEX IF EXISTS reports_by_kind;"
    "CREATE INDEX IF NOT EXISTS reports_cmd ON reports(seq) WHERE kind='cmd';"
    "CREATE TABLE IF NOT EXISTS exporters(name TEXT PRIMARY KEY, acked_seq INTEGER NOT NULL)"
    " WITHOUT ROWID;";

constexpr const char* kLastSeq =
    "SELECT coalesce((SELECT seq FROM sqlite_sequence WHERE name='reports'),0)";

const char* KindCondition(ReportFilter::Kind kind) {
    switch (kind) {
        case ReportFilter::Kind::kAny:
            return "";
        case ReportFilter::Kind::kCmd:
            return " AND kind='cmd'";
        case ReportFilter::Kind::kData:
            return " AND kind='data'";
        case ReportFilter::Kind::kAlarm:
            return " AND kind='data' AND name='2'";
    }
    return "";
}

std::string ReadSql(const ReportFilter& filter) {
    std::string sql =
        "SELECT seq,time_ms,kind,name,body,outcome,duration_ms,evidence,who FROM reports";
    if (filter.since_ms > 0) {
        // Times increase with sequence numbers except after clock changes. The first number of that
        // time limits the scan to newer rows. The plus signs force the planner to do so.
        sql +=
            " WHERE +time_ms>=?2 AND seq>max(?1,(SELECT coalesce(min(+seq)-1,?1) FROM reports"
            " INDEXED BY reports_by_time WHERE time_ms>=?2))";
    } else {
        sql += " WHERE seq>?1";
    }
    sql += KindCondition(filter.kind);
    return sql + (filter.newest ? " ORDER BY seq DESC LIMIT ?3" : " ORDER BY seq LIMIT ?3");
}

Report RowToReport(const SqliteRun& row) {
    Report report;
    report.seq = row.Int(0);
    report.time_ms = row.Int(1);
    report.kind = row.Bytes(2);
    report.name = row.Bytes(3);
    report.body = row.Bytes(4);
    report.outcome = row.Bytes(5);
    if (!row.IsNull(6)) report.duration_ms = row.Double(6);
    report.evidence = row.Bytes(7);
    report.who = row.Bytes(8);
    return report;
}

}  // namespace

bool ReportDatabase::Open(const std::string& path) {
    opened_ = Check(connection_.Create(path, kMode, kBusyTimeoutMs)) &&
              Check(connection_.Execute(kSetUp)) && AddMissingColumns() && PrepareStatements();
    return opened_;
}

/// The file may be of an older version of the agent.
bool ReportDatabase::AddMissingColumns() {
    return AddMissingColumn("evidence") && AddMissingColumn("who");
}

bool ReportDatabase::AddMissingColumn(const std::string& name) {
    SqliteStatement columns;
    if (!Check(columns.Prepare(
            connection_, "SELECT 1 FROM pragma_table_info('reports') WHERE name='" + name + "'"))) {
        return false;
    }
    int code = SQLITE_OK;
    {
        SqliteRun run(columns);
        code = run.Step();
    }
    if (code == SQLITE_ROW) return true;
    const std::string add = "ALTER TABLE reports ADD COLUMN " + name + " TEXT NOT NULL DEFAULT ''";
    return Check(code) && Check(connection_.Execute(add.c_str()));
}

bool ReportDatabase::PrepareStatements() {
    const struct {
        SqliteStatement& statement;
        const char* sql;
    } all[] = {
        {insert_,
         "INSERT INTO reports(time_ms,kind,name,body,outcome,duration_ms,evidence,who)"
         " VALUES(?,?,?,?,?,?,?,?)"},
        {first_seq_, "SELECT coalesce(min(seq),0) FROM reports"},
        {last_seq_, kLastSeq},
        {count_, "SELECT count(*) FROM reports"},
        {prune_old_,
         "DELETE FROM reports WHERE seq IN (SELECT seq FROM reports WHERE time_ms<? LIMIT ?)"
         " RETURNING seq"},
        {prune_first_,
         "DELETE FROM reports WHERE seq IN (SELECT seq FROM reports ORDER BY seq LIMIT ?)"
         " RETURNING seq"},
        {lowest_ack_, "SELECT min(acked_seq) FROM exporters"},
        {page_count_, "PRAGMA page_count"},
        {free_pages_, "PRAGMA freelist_count"},
        {page_size_, "PRAGMA page_size"},
    };
    return std::all_of(std::begin(all), std::end(all), [this](const auto& entry) {
        return Check(entry.statement.Prepare(connection_, entry.sql));
    });
}

bool ReportDatabase::Insert(Report& report) {
    SqliteRun run(insert_);
    run.Bind(1, report.time_ms);
    run.BindText(2, report.kind);
    run.BindText(3, report.name);
    run.BindBlob(4, report.body);
    run.BindText(5, report.outcome);
    if (report.duration_ms >= 0) run.Bind(6, report.duration_ms);
    run.BindText(7, report.evidence);
    run.BindText(8, report.who);
    if (!Check(run.Step())) return false;
    report.seq = sqlite3_last_insert_rowid(connection_.Handle());
    return true;
}

bool ReportDatabase::Read(const ReportFilter& filter, std::size_t max_bytes,
                          std::vector<Report>& reports, bool& complete) {
    reports.clear();
    complete = true;
    SqliteStatement statement;
    if (!Check(statement.Prepare(connection_, ReadSql(filter)))) return false;
    SqliteRun run(statement);
    run.Bind(1, filter.after);
    if (filter.since_ms > 0) run.Bind(2, filter.since_ms);
    run.Bind(3, filter.limit);
    std::size_t bytes = 0;
    int code = run.Step();
    for (; code == SQLITE_ROW && bytes < max_bytes; code = run.Step()) {
        reports.push_back(RowToReport(run));
        bytes += reports.back().body.size();
    }
    const bool cut =
        code == SQLITE_ROW || static_cast<std::int64_t>(reports.size()) >= filter.limit;
    complete = filter.newest || !cut;
    if (filter.newest) std::reverse(reports.begin(), reports.end());
    return Check(code);
}

bool ReportDatabase::PruneOlderThan(std::int64_t time_ms, int max_rows, Pruned& pruned) {
    SqliteRun run(prune_old_);
    run.Bind(1, time_ms);
    run.Bind(2, std::int64_t{max_rows});
    return Prune(run, pruned);
}

bool ReportDatabase::PruneOldest(int max_rows, Pruned& pruned) {
    SqliteRun run(prune_first_);
    run.Bind(1, std::int64_t{max_rows});
    return Prune(run, pruned);
}

bool ReportDatabase::Prune(SqliteRun& run, Pruned& pruned) {
    pruned = {};
    std::int64_t acknowledged = 0;
    if (!LowestAcknowledged(acknowledged)) return false;
    int code = run.Step();
    for (; code == SQLITE_ROW; code = run.Step()) {
        ++pruned.rows;
        if (run.Int(0) > acknowledged) ++pruned.unacknowledged;
    }
    return Check(code);
}

bool ReportDatabase::LowestAcknowledged(std::int64_t& seq) {
    SqliteRun run(lowest_ack_);
    const int code = run.Step();
    if (!Check(code)) return false;
    const bool any = code == SQLITE_ROW && !run.IsNull(0);
    seq = any ? run.Int(0) : std::numeric_limits<std::int64_t>::max();
    return true;
}

bool ReportDatabase::ReleasePages(int pages) {
    const std::string sql = "PRAGMA incremental_vacuum(" + std::to_string(pages) + ")";
    return Check(connection_.Execute(sql.c_str()));
}

bool ReportDatabase::SetAcknowledged(const std::string& exporter, std::int64_t seq) {
    SqliteStatement statement;
    if (!Check(statement.Prepare(connection_,
                                 "INSERT INTO exporters(name,acked_seq) VALUES(?1,?2)"
                                 " ON CONFLICT(name) DO UPDATE SET acked_seq=?2"))) {
        return false;
    }
    SqliteRun run(statement);
    run.BindText(1, exporter);
    run.Bind(2, seq);
    return Check(run.Step());
}

bool ReportDatabase::ReadExporters(std::vector<ExporterState>& exporters) {
    exporters.clear();
    SqliteStatement statement;
    if (!Check(statement.Prepare(connection_, "SELECT name,acked_seq FROM exporters")))
        return false;
    SqliteRun run(statement);
    int code = run.Step();
    for (; code == SQLITE_ROW; code = run.Step()) {
        exporters.push_back({run.Bytes(0), run.Int(1)});
    }
    return Check(code);
}

bool ReportDatabase::RemoveExporters(const std::string& prefix) {
    SqliteStatement statement;
    if (!Check(statement.Prepare(connection_,
                                 "DELETE FROM exporters WHERE substr(name,1,length(?1))=?1"))) {
        return false;
    }
    SqliteRun run(statement);
    run.BindText(1, prefix);
    return Check(run.Step());
}

bool ReportDatabase::ContinueAfter(std::int64_t seq) {
    std::int64_t last = 0;
    if (!LastSeq(last)) return false;
    if (last >= seq) return true;
    const std::string value = std::to_string(seq);
    const std::string sql =
        "DELETE FROM sqlite_sequence WHERE name='reports';"
        "INSERT INTO sqlite_sequence(name,seq) VALUES('reports'," +
        value + ")";
    return Check(connection_.Execute(sql.c_str()));
}

bool ReportDatabase::FirstSeq(std::int64_t& seq) {
    return Value(first_seq_, seq);
}

bool ReportDatabase::LastSeq(std::int64_t& seq) {
    return Value(last_seq_, seq);
}

bool ReportDatabase::CountRows(std::int64_t& rows) {
    return Value(count_, rows);
}

bool ReportDatabase::Sizes(std::int64_t& file_bytes, std::int64_t& used_bytes) {
    std::int64_t pages = 0;
    std::int64_t unused = 0;
    std::int64_t page_size = 0;
    if (!Value(page_count_, pages) || !Value(free_pages_, unused) ||
        !Value(page_size_, page_size)) {
        return false;
    }
    file_bytes = pages * page_size;
    used_bytes = (pages - unused) * page_size;
    return true;
}

bool ReportDatabase::Value(SqliteStatement& statement, std::int64_t& value) {
    SqliteRun run(statement);
    const int code = run.Step();
    value = code == SQLITE_ROW ? run.Int(0) : 0;
    return Check(code);
}

bool ReportDatabase::Check(int code) {
    code_ = code & 0xff;
    if (code_ == SQLITE_OK || code_ == SQLITE_ROW || code_ == SQLITE_DONE) return true;
    error_ = connection_.Error();
    return false;
}

ReportDatabase::Fault ReportDatabase::FaultKind() const {
    switch (code_) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
        case SQLITE_FULL:
        case SQLITE_NOMEM:
        case SQLITE_TOOBIG:
        case SQLITE_INTERRUPT:
            return Fault::kTransient;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return Fault::kDamaged;
        case SQLITE_ERROR:  // while opening: tables with other columns
            return opened_ ? Fault::kConnection : Fault::kDamaged;
        default:
            return Fault::kConnection;
    }
}

}  // namespace Engine
