// Owns the collector's database: its schema and statements. Must not decide what is a duplicate or
// who is silent (service/ does).
#include "store/FleetStore.h"

#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/text/Utf8.h>

#include <algorithm>

#include "store/Schema.h"

namespace Collector {

using Database::SqliteRun;
using Database::SqliteStatement;

namespace {

constexpr int kBusyTimeoutMs = 5'000;

// Synchronous FULL: what is acknowledged to a host must survive a loss of power here.
constexpr const char* kSettings =
    "PRAGMA auto_vacuum=INCREMENTAL;"
    "PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=FULL;"
    "PRAGMA temp_store=MEMORY;"
    "PRAGMA journal_size_limit=67108864;";

bool IsDone(int code) {
    return code == SQLITE_DONE || code == SQLITE_ROW;
}

/// Closed before SQLite opens it: closing a descriptor of the file later would drop SQLite's locks.
void CreateFile(const std::string& path) {
    const SDK::FileDescriptor file(::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0640));
}

HostRecord ToHost(const SqliteRun& row) {
    HostRecord host;
    host.id = row.Int(0);
    host.agent_id = row.Bytes(1);
    host.stream = row.Bytes(2);
    host.epoch = row.Int(3);
    host.acknowledged = row.Int(4);
    host.bytes = row.Int(5);
    host.first_seen_ms = row.Int(6);
    host.last_seen_ms = row.Int(7);
    host.online = row.Int(8) != 0;
    host.silent = row.Int(9) != 0;
    host.state = row.Bytes(10);
    return host;
}

/// From the second value on, as the columns of `hosts`.
void BindHost(SqliteRun& run, const HostRecord& host) {
    run.BindText(1, host.agent_id);
    run.BindText(2, host.stream);
    run.Bind(3, host.epoch);
    run.Bind(4, host.acknowledged);
    run.Bind(5, host.bytes);
    run.Bind(6, host.first_seen_ms);
    run.Bind(7, host.last_seen_ms);
    run.Bind(8, std::int64_t{host.online ? 1 : 0});
    run.Bind(9, std::int64_t{host.silent ? 1 : 0});
    run.BindText(10, host.state);
}

Json::Value ToReportRow(const SqliteRun& row) {
    Json::Value report(Json::objectValue);
    report["id"] = Json::Int64{row.Int(0)};
    report["agent_id"] = row.Bytes(1);
    report["epoch"] = Json::Int64{row.Int(2)};
    report["seq"] = Json::Int64{row.Int(3)};
    report["time_ms"] = Json::Int64{row.Int(4)};
    report["received_ms"] = Json::Int64{row.Int(5)};
    const char* const names[] = {"kind", "name", "outcome", "duration_ms", "evidence"};
    for (int i = 0; i < 5; ++i) report[names[i]] = row.Bytes(6 + i);
    report["whole_bytes"] = Json::Int64{row.Int(11)};
    report["body"] = SDK::ToValidUtf8(row.Bytes(12));
    return report;
}

std::string ListSql(const ReportQuery& query) {
    std::string sql =
        "SELECT * FROM (SELECT r.id,h.agent_id,r.epoch,r.seq,r.time_ms,r.received_ms,r.kind,r.name,"
        "r.outcome,r.duration_ms,r.evidence,r.whole_bytes,r.body"
        " FROM reports r JOIN hosts h ON h.id=r.host_id WHERE r.id>?1";
    if (!query.agent_id.empty()) sql += " AND h.agent_id=?2";
    if (!query.kind.empty()) sql += " AND r.kind=?3";
    sql += query.after > 0 ? " ORDER BY r.id LIMIT ?4)" : " ORDER BY r.id DESC LIMIT ?4)";
    return sql + " ORDER BY id";
}

}  // namespace

bool FleetStore::Open(const std::string& path) {
    CreateFile(path);
    return SetUp(path) && connection_.Execute(kSettings) == SQLITE_OK && Migrate() && Prepare();
}

bool FleetStore::OpenExisting(const std::string& path) {
    return SetUp(path) && Prepare();
}

bool FleetStore::SetUp(const std::string& path) {
    return connection_.Open(path, kBusyTimeoutMs) == SQLITE_OK;
}

bool FleetStore::Migrate() {
    SqliteStatement read;
    if (read.Prepare(connection_, "PRAGMA user_version") != SQLITE_OK) return false;
    std::int64_t version = 0;
    {
        SqliteRun run(read);
        if (run.Step() != SQLITE_ROW) return false;
        version = run.Int(0);
    }
    for (auto step = static_cast<std::size_t>(version); step < kSchemaSteps.size(); ++step) {
        const std::string sql = std::string("BEGIN IMMEDIATE;") + kSchemaSteps.at(step) +
                                "PRAGMA user_version=" + std::to_string(step + 1) + ";COMMIT";
        if (connection_.Execute(sql.c_str()) == SQLITE_OK) continue;
        connection_.Execute("ROLLBACK");
        return false;
    }
    return true;
}

bool FleetStore::Prepare() {
    const struct {
        SqliteStatement& statement;
        const char* sql;
    } all[] = {
        {add_host_,
         "INSERT INTO hosts(agent_id,stream,epoch,acknowledged,bytes,first_seen_ms,last_seen_ms,"
         "online,silent,state) VALUES(?,?,?,?,?,?,?,?,?,?)"},
        {save_host_,
         "UPDATE hosts SET stream=?2,epoch=?3,acknowledged=?4,bytes=?5,first_seen_ms=?6,"
         "last_seen_ms=?7,online=?8,silent=?9,state=?10 WHERE agent_id=?1"},
        {add_report_,
         "INSERT INTO reports(host_id,epoch,seq,time_ms,received_ms,kind,name,outcome,duration_ms,"
         "evidence,whole_bytes,body) VALUES(?,?,?,?,?,?,?,?,?,?,?,?)"},
        {find_report_,
         "SELECT time_ms,body FROM reports WHERE host_id=? AND seq=? ORDER BY epoch DESC LIMIT 1"},
        {add_event_, "INSERT INTO events(time_ms,host_id,kind,text) VALUES(?,?,?,?)"},
        {save_result_,
         "INSERT INTO results(host_id,feature,time_ms,result) VALUES(?1,?2,?3,?4)"
         " ON CONFLICT(host_id,feature) DO UPDATE SET time_ms=?3,result=?4"},
        {set_fact_,
         "INSERT INTO facts(name,value) VALUES(?1,?2) ON CONFLICT(name) DO UPDATE SET value=?2"},
        {read_fact_, "SELECT value FROM facts WHERE name=?"},
        {prune_old_,
         "DELETE FROM reports WHERE id IN (SELECT id FROM reports WHERE received_ms<? LIMIT ?)"
         " RETURNING host_id,length(body)"},
        {prune_host_,
         "DELETE FROM reports WHERE id IN (SELECT id FROM reports WHERE host_id=? ORDER BY epoch,"
         "seq LIMIT ?) RETURNING host_id,length(body)"},
    };
    return std::all_of(std::begin(all), std::end(all), [this](const auto& entry) {
        return entry.statement.Prepare(connection_, entry.sql) == SQLITE_OK;
    });
}

bool FleetStore::Begin() {
    return connection_.Execute("BEGIN IMMEDIATE") == SQLITE_OK;
}

bool FleetStore::Commit() {
    return connection_.Execute("COMMIT") == SQLITE_OK;
}

void FleetStore::Rollback() {
    connection_.Execute("ROLLBACK");
}

bool FleetStore::ReadHosts(std::vector<HostRecord>& hosts) {
    hosts.clear();
    SqliteStatement statement;
    if (statement.Prepare(connection_,
                          "SELECT id,agent_id,stream,epoch,acknowledged,bytes,first_seen_ms,"
                          "last_seen_ms,online,silent,state FROM hosts ORDER BY agent_id") !=
        SQLITE_OK) {
        return false;
    }
    SqliteRun run(statement);
    int code = run.Step();
    for (; code == SQLITE_ROW; code = run.Step()) hosts.push_back(ToHost(run));
    return code == SQLITE_DONE;
}

bool FleetStore::AddHost(HostRecord& host) {
    SqliteRun run(add_host_);
    BindHost(run, host);
    if (run.Step() != SQLITE_DONE) return false;
    host.id = sqlite3_last_insert_rowid(connection_.Handle());
    return true;
}

bool FleetStore::SaveHost(const HostRecord& host) {
    SqliteRun run(save_host_);
    BindHost(run, host);
    return run.Step() == SQLITE_DONE;
}

bool FleetStore::AddReport(const HostRecord& host, const Fleet::Report& report,
                           std::int64_t now_ms) {
    SqliteRun run(add_report_);
    run.Bind(1, host.id);
    run.Bind(2, host.epoch);
    run.Bind(3, report.seq);
    run.Bind(4, report.time_ms);
    run.Bind(5, now_ms);
    run.BindText(6, report.kind);
    run.BindText(7, report.name);
    run.BindText(8, report.outcome);
    run.BindText(9, report.duration_ms);
    run.BindText(10, report.evidence);
    run.Bind(11, report.whole_bytes);
    run.BindBlob(12, report.body);
    return run.Step() == SQLITE_DONE;
}

FleetStore::Match FleetStore::Compare(const HostRecord& host, const Fleet::Report& report) {
    SqliteRun run(find_report_);
    run.Bind(1, host.id);
    run.Bind(2, report.seq);
    const int code = run.Step();
    if (code == SQLITE_DONE) return Match::kNone;
    if (code != SQLITE_ROW) return Match::kFailed;
    const bool is_same = run.Int(0) == report.time_ms && run.Bytes(1) == report.body;
    return is_same ? Match::kSame : Match::kOther;
}

bool FleetStore::AddEvent(std::int64_t host_id, const std::string& kind, const std::string& text,
                          std::int64_t now_ms) {
    SqliteRun run(add_event_);
    run.Bind(1, now_ms);
    run.Bind(2, host_id);
    run.BindText(3, kind);
    run.BindText(4, text);
    return run.Step() == SQLITE_DONE;
}

bool FleetStore::SaveResult(std::int64_t host_id, const std::string& feature,
                            const std::string& result, std::int64_t now_ms) {
    SqliteRun run(save_result_);
    run.Bind(1, host_id);
    run.BindText(2, feature);
    run.Bind(3, now_ms);
    run.BindText(4, result);
    return run.Step() == SQLITE_DONE;
}

bool FleetStore::SetFact(const std::string& name, std::int64_t value) {
    SqliteRun run(set_fact_);
    run.BindText(1, name);
    run.Bind(2, value);
    return run.Step() == SQLITE_DONE;
}

bool FleetStore::ReadFact(const std::string& name, std::int64_t& value) {
    SqliteRun run(read_fact_);
    run.BindText(1, name);
    const int code = run.Step();
    value = code == SQLITE_ROW ? run.Int(0) : 0;
    return IsDone(code);
}

bool FleetStore::PruneOlderThan(std::int64_t time_ms, int max_rows, const Removed& removed) {
    const std::string events = "DELETE FROM events WHERE time_ms<" + std::to_string(time_ms);
    if (connection_.Execute(events.c_str()) != SQLITE_OK) return false;
    SqliteRun run(prune_old_);
    run.Bind(1, time_ms);
    run.Bind(2, std::int64_t{max_rows});
    return Prune(run, removed);
}

bool FleetStore::PruneHost(std::int64_t host_id, int max_rows, const Removed& removed) {
    SqliteRun run(prune_host_);
    run.Bind(1, host_id);
    run.Bind(2, std::int64_t{max_rows});
    return Prune(run, removed);
}

bool FleetStore::Prune(SqliteRun& run, const Removed& removed) {
    int code = run.Step();
    for (; code == SQLITE_ROW; code = run.Step()) removed(run.Int(0), run.Int(1));
    return code == SQLITE_DONE;
}

bool FleetStore::ListReports(const ReportQuery& query, const Row& row) {
    SqliteStatement statement;
    if (statement.Prepare(connection_, ListSql(query)) != SQLITE_OK) return false;
    SqliteRun run(statement);
    run.Bind(1, query.after);
    if (!query.agent_id.empty()) run.BindText(2, query.agent_id);
    if (!query.kind.empty()) run.BindText(3, query.kind);
    run.Bind(4, query.limit);
    int code = run.Step();
    for (; code == SQLITE_ROW; code = run.Step()) {
        if (!row(ToReportRow(run))) return true;
    }
    return code == SQLITE_DONE;
}

bool FleetStore::ListEvents(std::int64_t limit, const Row& row) {
    SqliteStatement statement;
    if (statement.Prepare(connection_,
                          "SELECT * FROM (SELECT e.id,e.time_ms,coalesce(h.agent_id,''),e.kind,"
                          "e.text FROM events e LEFT JOIN hosts h ON h.id=e.host_id"
                          " ORDER BY e.id DESC LIMIT ?) ORDER BY id") != SQLITE_OK) {
        return false;
    }
    SqliteRun run(statement);
    run.Bind(1, limit);
    int code = run.Step();
    for (; code == SQLITE_ROW; code = run.Step()) {
        Json::Value event(Json::objectValue);
        event["time_ms"] = Json::Int64{run.Int(1)};
        event["agent_id"] = run.Bytes(2);
        event["kind"] = run.Bytes(3);
        event["text"] = run.Bytes(4);
        if (!row(event)) return true;
    }
    return code == SQLITE_DONE;
}

bool FleetStore::ListResults(const Row& row) {
    SqliteStatement statement;
    if (statement.Prepare(connection_,
                          "SELECT h.agent_id,r.feature,r.time_ms,r.result FROM results r"
                          " JOIN hosts h ON h.id=r.host_id ORDER BY 1,2") != SQLITE_OK) {
        return false;
    }
    SqliteRun run(statement);
    int code = run.Step();
    for (; code == SQLITE_ROW; code = run.Step()) {
        Json::Value result(Json::objectValue);
        result["agent_id"] = run.Bytes(0);
        result["feature"] = run.Bytes(1);
        result["time_ms"] = Json::Int64{run.Int(2)};
        result["result"] = run.Bytes(3);
        if (!row(result)) return true;
    }
    return code == SQLITE_DONE;
}

}  // namespace Collector
