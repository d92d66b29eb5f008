// Owns the statements of rollouts. Must not decide when a wave is over (centre/ does).
#include "store/RolloutStore.h"

#include <algorithm>

namespace Collector {

using Database::Row;
using Database::Values;

namespace {

Rollout ToRollout(const Row& row) {
    Rollout rollout;
    rollout.id = row.Int(0);
    rollout.time_ms = row.Int(1);
    rollout.author = row.Bytes(2);
    rollout.kind = row.Bytes(3);
    rollout.name = row.Bytes(4);
    rollout.number = row.Int(5);
    rollout.sha256 = row.Bytes(6);
    rollout.document = row.Bytes(7);
    rollout.expires_ms = row.Int(8);
    rollout.wave = row.Int(9);
    rollout.wave_begun_ms = row.Int(10);
    rollout.state = row.Bytes(11);
    rollout.reason = row.Bytes(12);
    return rollout;
}

}  // namespace

bool RolloutStore::Open(const Database::Location& location) {
    session_ = Database::Open(location, Database::Mode::kExisting, error_);
    return session_ != nullptr;
}

bool RolloutStore::Add(Rollout& rollout, const std::vector<RolloutHost>& hosts) {
    const auto add_host = [&](const RolloutHost& host) {
        return session_->Post(
            "INSERT INTO rollout_hosts(rollout_id,host_id,wave,sent_ms) VALUES(?1,?2,?3,0)",
            {rollout.id, host.host_id, host.wave});
    };
    const auto set_id = [&](const Row& row) {
        rollout.id = row.Int(0);
        return true;
    };
    const bool good =
        session_->Begin() &&
        session_->Run(
            "INSERT INTO rollouts(time_ms,author,kind,name,number,sha256,document,expires_ms,wave,"
            "wave_begun_ms,state,reason) VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?12)"
            " RETURNING id",
            {rollout.time_ms, rollout.author, rollout.kind, rollout.name, rollout.number,
             rollout.sha256, rollout.document, rollout.expires_ms, rollout.wave,
             rollout.wave_begun_ms, rollout.state, rollout.reason},
            set_id) &&
        std::all_of(hosts.begin(), hosts.end(), add_host) && session_->Commit();
    if (!good) session_->Rollback();
    return good;
}

bool RolloutStore::Read(const std::string& condition, const Values& values,
                        std::vector<Rollout>& rollouts) {
    rollouts.clear();
    return session_->Run(
        "SELECT id,time_ms,author,kind,name,number,sha256,document,expires_ms,wave,wave_begun_ms,"
        "state,reason FROM rollouts " +
            condition,
        values, [&](const Row& row) {
            rollouts.push_back(ToRollout(row));
            return true;
        });
}

bool RolloutStore::Running(std::vector<Rollout>& rollouts) {
    return Read("WHERE state='running' ORDER BY id", {}, rollouts);
}

bool RolloutStore::Newest(std::int64_t limit, std::vector<Rollout>& rollouts) {
    return Read("ORDER BY id DESC LIMIT ?1", {limit}, rollouts);
}

std::optional<Rollout> RolloutStore::Find(std::int64_t id) {
    std::vector<Rollout> found;
    if (!Read("WHERE id=?1", {id}, found) || found.empty()) return std::nullopt;
    return found[0];
}

bool RolloutStore::Hosts(const Rollout& rollout, std::vector<RolloutHost>& hosts) {
    hosts.clear();
    const bool is_act = rollout.kind == "act";
    const std::string answers =
        is_act ? " LEFT JOIN act_results a ON a.host_id=r.host_id AND a.number=?2"
               : " LEFT JOIN results a ON a.host_id=r.host_id AND a.feature=?2";
    Values values{rollout.id};
    if (is_act) {
        values.emplace_back(rollout.number);
    } else {
        values.emplace_back(rollout.name);
    }
    return session_->Run(
        "SELECT r.host_id,h.agent_id,r.wave,r.sent_ms,coalesce(a.result,'') FROM rollout_hosts r"
        " JOIN hosts h ON h.id=r.host_id" +
            answers + " WHERE r.rollout_id=?1 ORDER BY r.wave,h.agent_id",
        values, [&](const Row& row) {
            hosts.push_back({row.Int(0), row.Bytes(1), row.Int(2), row.Int(3), row.Bytes(4)});
            return true;
        });
}

bool RolloutStore::Change(const Rollout& before, const Rollout& after) {
    return session_->Run(
               "UPDATE rollouts SET wave=?2,wave_begun_ms=?3,state=?4,reason=?5"
               " WHERE id=?1 AND wave=?6 AND state=?7",
               {before.id, after.wave, after.wave_begun_ms, after.state, after.reason, before.wave,
                before.state}) &&
           session_->Changed() == 1;
}

bool RolloutStore::MarkSent(std::int64_t id, std::int64_t host_id, std::int64_t now_ms) {
    return session_->Run(
               "UPDATE rollout_hosts SET sent_ms=?3 WHERE rollout_id=?1 AND host_id=?2"
               " AND sent_ms=0",
               {id, host_id, now_ms}) &&
           session_->Changed() == 1;
}

bool RolloutStore::CountAlarms(const Rollout& rollout, std::int64_t from_ms, std::int64_t to_ms,
                               std::int64_t& count) {
    return session_->Run(
        "SELECT count(*) FROM reports p JOIN rollout_hosts r ON r.host_id=p.host_id"
        " WHERE r.rollout_id=?1 AND r.wave<=?2 AND p.kind='alarm' AND p.received_ms>=?3"
        " AND p.received_ms<?4",
        {rollout.id, rollout.wave, from_ms, to_ms}, [&](const Row& row) {
            count = row.Int(0);
            return true;
        });
}

}  // namespace Collector
