// Owns the collector's tables and their statements, which both databases understand. Must not
// decide what is a duplicate or who is silent (service/ does).
#include "store/FleetStore.h"

#include <sdk/text/Utf8.h>

#include <algorithm>

#include "store/Schema.h"

namespace Collector {

using Database::Blob;
using Database::Row;
using Database::Values;

namespace {

/// What both databases take as text, whatever a host sent.
std::string Clean(const std::string& text) {
    std::string clean = SDK::ToValidUtf8(text);
    std::replace(clean.begin(), clean.end(), '\0', ' ');
    return clean;
}

HostRecord ToHost(const Row& row) {
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
    host.revision = row.Int(11);
    return host;
}

Json::Value ToReportRow(const Row& row) {
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

Json::Value ToEventRow(const Row& row) {
    Json::Value event(Json::objectValue);
    event["id"] = Json::Int64{row.Int(0)};
    event["time_ms"] = Json::Int64{row.Int(1)};
    event["agent_id"] = row.Bytes(2);
    event["kind"] = row.Bytes(3);
    event["text"] = row.Bytes(4);
    return event;
}

constexpr const char* kReports =
    "SELECT r.id,h.agent_id,r.epoch,r.seq,r.time_ms,r.received_ms,r.kind,r.name,"
    "r.outcome,r.duration_ms,r.evidence,r.whole_bytes,r.body"
    " FROM reports r JOIN hosts h ON h.id=r.host_id WHERE r.id>";
constexpr const char* kEvents =
    "SELECT e.id,e.time_ms,coalesce(h.agent_id,''),e.kind,e.text FROM events e"
    " LEFT JOIN hosts h ON h.id=e.host_id";

/// The statement of a list, and its values, which borrow from the query.
std::string ListSql(const ReportQuery& query, Values& values) {
    const auto next = [&values](const Database::Value& value) {
        values.push_back(value);
        return "?" + std::to_string(values.size());
    };
    std::string sql = std::string("SELECT * FROM (") + kReports + next(query.after);
    if (!query.agent_id.empty()) sql += " AND h.agent_id=" + next(query.agent_id);
    if (!query.kind.empty()) sql += " AND r.kind=" + next(query.kind);
    sql += query.after > 0 ? " ORDER BY r.id LIMIT " : " ORDER BY r.id DESC LIMIT ";
    return sql + next(query.limit) + ") AS page ORDER BY id";
}

}  // namespace

bool FleetStore::Open(const Database::Location& location) {
    session_ = Database::Open(location, Database::Mode::kMake, error_);
    return session_ != nullptr && session_->Migrate({kSchemaSteps.begin(), kSchemaSteps.end()});
}

bool FleetStore::OpenExisting(const Database::Location& location) {
    session_ = Database::Open(location, Database::Mode::kExisting, error_);
    return session_ != nullptr;
}

bool FleetStore::Begin() {
    return session_->Begin();
}

bool FleetStore::Commit() {
    return session_->Commit();
}

void FleetStore::Rollback() {
    session_->Rollback();
}

bool FleetStore::ReadHosts(std::vector<HostRecord>& hosts) {
    hosts.clear();
    return session_->Run(
        "SELECT id,agent_id,stream,epoch,acknowledged,bytes,first_seen_ms,last_seen_ms,online,"
        "silent,state,revision FROM hosts ORDER BY agent_id",
        {}, [&](const Row& row) {
            hosts.push_back(ToHost(row));
            return true;
        });
}

bool FleetStore::AddHost(HostRecord& host) {
    const std::int64_t online = host.online ? 1 : 0;
    const std::int64_t silent = host.silent ? 1 : 0;
    return session_->Run(
        "INSERT INTO hosts(agent_id,stream,epoch,acknowledged,bytes,first_seen_ms,last_seen_ms,"
        "online,silent,state) VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,?10) RETURNING id",
        {host.agent_id, host.stream, host.epoch, host.acknowledged, host.bytes, host.first_seen_ms,
         host.last_seen_ms, online, silent, Clean(host.state)},
        [&](const Row& row) {
            host.id = row.Int(0);
            return true;
        });
}

bool FleetStore::SaveHost(const HostRecord& host) {
    const std::int64_t online = host.online ? 1 : 0;
    const std::int64_t silent = host.silent ? 1 : 0;
    return session_->PostOne(
        "UPDATE hosts SET stream=?2,epoch=?3,acknowledged=?4,bytes=?5,first_seen_ms=?6,"
        "last_seen_ms=?7,online=?8,silent=?9,state=?10,revision=revision+1"
        " WHERE agent_id=?1 AND revision=?11",
        {host.agent_id, host.stream, host.epoch, host.acknowledged, host.bytes, host.first_seen_ms,
         host.last_seen_ms, online, silent, Clean(host.state), host.revision});
}

bool FleetStore::AddReport(const HostRecord& host, const Fleet::Report& report,
                           std::int64_t now_ms) {
    return session_->Post(
        "INSERT INTO reports(host_id,epoch,seq,time_ms,received_ms,kind,name,outcome,duration_ms,"
        "evidence,whole_bytes,body) VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?12)",
        {host.id, host.epoch, report.seq, report.time_ms, now_ms, Clean(report.kind),
         Clean(report.name), Clean(report.outcome), Clean(report.duration_ms),
         Clean(report.evidence), report.whole_bytes, Blob(report.body)});
}

FleetStore::Match FleetStore::Compare(const HostRecord& host, const Fleet::Report& report) {
    Match match = Match::kNone;
    const bool good = session_->Run(
        "SELECT time_ms,body FROM reports WHERE host_id=?1 AND seq=?2 ORDER BY epoch DESC LIMIT 1",
        {host.id, report.seq}, [&](const Row& row) {
            const bool is_same = row.Int(0) == report.time_ms && row.Bytes(1) == report.body;
            match = is_same ? Match::kSame : Match::kOther;
            return true;
        });
    return good ? match : Match::kFailed;
}

bool FleetStore::AddEvent(std::int64_t host_id, const std::string& kind, const std::string& text,
                          std::int64_t now_ms) {
    return session_->Run("INSERT INTO events(time_ms,host_id,kind,text) VALUES(?1,?2,?3,?4)",
                         {now_ms, host_id, kind, Clean(text)});
}

bool FleetStore::SaveResult(std::int64_t host_id, const std::string& feature,
                            const std::string& result, std::int64_t now_ms) {
    return session_->Run(
        "INSERT INTO results(host_id,feature,time_ms,result) VALUES(?1,?2,?3,?4)"
        " ON CONFLICT(host_id,feature) DO UPDATE SET time_ms=?3,result=?4",
        {host_id, Clean(feature), now_ms, Clean(result)});
}

bool FleetStore::SaveActResult(std::int64_t host_id, std::int64_t number, const std::string& result,
                               std::int64_t now_ms) {
    return session_->Run(
               "INSERT INTO act_results(host_id,number,time_ms,result) VALUES(?1,?2,?3,?4)"
               " ON CONFLICT(host_id,number) DO UPDATE SET time_ms=?3,result=?4",
               {host_id, number, now_ms, Clean(result)}) &&
           session_->Run(
               "DELETE FROM act_results WHERE host_id=?1 AND number<(SELECT min(number) FROM"
               " (SELECT number FROM act_results WHERE host_id=?1 ORDER BY number DESC LIMIT 100)"
               " AS newest)",
               {host_id});
}

bool FleetStore::SetFact(const std::string& name, std::int64_t value) {
    return session_->Run(
        "INSERT INTO facts(name,value) VALUES(?1,?2) ON CONFLICT(name) DO UPDATE SET value=?2",
        {name, value});
}

bool FleetStore::ReadFact(const std::string& name, std::int64_t& value) {
    value = 0;
    return session_->Run("SELECT value FROM facts WHERE name=?1", {name}, [&](const Row& row) {
        value = row.Int(0);
        return true;
    });
}

bool FleetStore::PruneOlderThan(std::int64_t time_ms, int max_rows, const Removed& removed) {
    return session_->Run("DELETE FROM events WHERE time_ms<?1", {time_ms}) &&
           Prune(
               "DELETE FROM reports WHERE id IN (SELECT id FROM reports WHERE received_ms<?1"
               " LIMIT ?2) RETURNING host_id,length(body)",
               {time_ms, std::int64_t{max_rows}}, removed);
}

bool FleetStore::PruneHost(std::int64_t host_id, int max_rows, const Removed& removed) {
    return Prune(
        "DELETE FROM reports WHERE id IN (SELECT id FROM reports WHERE host_id=?1"
        " ORDER BY epoch,seq LIMIT ?2) RETURNING host_id,length(body)",
        {host_id, std::int64_t{max_rows}}, removed);
}

bool FleetStore::Prune(const std::string& sql, const Values& values, const Removed& removed) {
    return session_->Run(sql, values, [&](const Row& row) {
        removed(row.Int(0), row.Int(1));
        return true;
    });
}

bool FleetStore::ListReports(const ReportQuery& query, const EachRow& each) {
    Values values;
    const std::string sql = ListSql(query, values);
    return session_->Run(sql, values, [&](const Row& row) { return each(ToReportRow(row)); });
}

bool FleetStore::ListEvents(std::int64_t limit, const EachRow& each) {
    return session_->Run(std::string("SELECT * FROM (") + kEvents +
                             " ORDER BY e.id DESC LIMIT ?1) AS page ORDER BY id",
                         {limit}, [&](const Row& row) { return each(ToEventRow(row)); });
}

bool FleetStore::ListResults(const EachRow& each) {
    return session_->Run(
        "SELECT h.agent_id,r.feature,r.time_ms,r.result FROM results r"
        " JOIN hosts h ON h.id=r.host_id ORDER BY 1,2",
        {}, [&](const Row& row) {
            Json::Value result(Json::objectValue);
            result["agent_id"] = row.Bytes(0);
            result["feature"] = row.Bytes(1);
            result["time_ms"] = Json::Int64{row.Int(2)};
            result["result"] = row.Bytes(3);
            return each(result);
        });
}

bool FleetStore::ListActResults(std::int64_t limit, const EachRow& each) {
    return session_->Run(
        "SELECT h.agent_id,r.number,r.time_ms,r.result FROM act_results r"
        " JOIN hosts h ON h.id=r.host_id ORDER BY 2 DESC,1 LIMIT ?1",
        {limit}, [&](const Row& row) {
            Json::Value result(Json::objectValue);
            result["agent_id"] = row.Bytes(0);
            result["number"] = Json::Int64{row.Int(1)};
            result["time_ms"] = Json::Int64{row.Int(2)};
            result["result"] = row.Bytes(3);
            return each(result);
        });
}

bool FleetStore::ReadReportsAfter(std::int64_t id, std::int64_t limit, const EachRow& each) {
    return session_->Run(std::string(kReports) + "?1 ORDER BY r.id LIMIT ?2", {id, limit},
                         [&](const Row& row) { return each(ToReportRow(row)); });
}

bool FleetStore::ReadEventsAfter(std::int64_t id, std::int64_t limit, const EachRow& each) {
    return session_->Run(std::string(kEvents) + " WHERE e.id>?1 ORDER BY e.id LIMIT ?2",
                         {id, limit}, [&](const Row& row) { return each(ToEventRow(row)); });
}

bool FleetStore::ReadNumber(const std::string& sql, std::int64_t& number) {
    return session_->Run(sql, {}, [&](const Row& row) {
        number = row.Int(0);
        return true;
    });
}

bool FleetStore::LastReport(std::int64_t& id) {
    return ReadNumber("SELECT coalesce(max(id),0) FROM reports", id);
}

bool FleetStore::LastEvent(std::int64_t& id) {
    return ReadNumber("SELECT coalesce(max(id),0) FROM events", id);
}

bool FleetStore::ReadState(const std::string& agent_id, std::string& state) {
    state.clear();
    return session_->Run("SELECT state FROM hosts WHERE agent_id=?1", {agent_id},
                         [&](const Row& row) {
                             state = row.Bytes(0);
                             return true;
                         });
}

bool FleetStore::ReadMark(const std::string& name, std::optional<std::string>& value) {
    value.reset();
    return session_->Run("SELECT value FROM marks WHERE name=?1", {name}, [&](const Row& row) {
        value = row.Bytes(0);
        return true;
    });
}

bool FleetStore::SetMark(const std::string& name, const std::string& value) {
    return session_->Run(
        "INSERT INTO marks(name,value) VALUES(?1,?2) ON CONFLICT(name) DO UPDATE SET value=?2",
        {name, value});
}

bool FleetStore::RemoveMark(const std::string& name) {
    return session_->Run("DELETE FROM marks WHERE name=?1", {name});
}

bool FleetStore::CopyTo(const std::string& path) {
    return session_->Run("VACUUM INTO ?1", {path});
}

std::int64_t FleetStore::Size() {
    return session_->Size();
}

}  // namespace Collector
