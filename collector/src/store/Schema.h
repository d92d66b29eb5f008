#pragma once

#include <array>

namespace Collector {

/// The steps from one version of the schema to the next (Database::SchemaSteps). A step that was
/// released is never changed.
constexpr std::array<const char*, 5> kSchemaSteps{{
    "CREATE TABLE hosts("
    "id INTEGER PRIMARY KEY, agent_id TEXT NOT NULL UNIQUE, stream TEXT NOT NULL,"
    "epoch INTEGER NOT NULL, acknowledged INTEGER NOT NULL, bytes INTEGER NOT NULL,"
    "first_seen_ms INTEGER NOT NULL, last_seen_ms INTEGER NOT NULL,"
    "online INTEGER NOT NULL, silent INTEGER NOT NULL, state TEXT NOT NULL);"
    "CREATE TABLE reports("
    "id INTEGER PRIMARY KEY, host_id INTEGER NOT NULL, epoch INTEGER NOT NULL,"
    "seq INTEGER NOT NULL, time_ms INTEGER NOT NULL, received_ms INTEGER NOT NULL,"
    "kind TEXT NOT NULL, name TEXT NOT NULL, outcome TEXT NOT NULL, duration_ms TEXT NOT NULL,"
    "evidence TEXT NOT NULL, whole_bytes INTEGER NOT NULL, body BLOB NOT NULL);"
    "CREATE UNIQUE INDEX reports_by_number ON reports(host_id, seq, epoch);"
    "CREATE INDEX reports_by_arrival ON reports(received_ms);"
    "CREATE TABLE events("
    "id INTEGER PRIMARY KEY, time_ms INTEGER NOT NULL, host_id INTEGER NOT NULL,"
    "kind TEXT NOT NULL, text TEXT NOT NULL);"
    "CREATE TABLE results("
    "host_id INTEGER NOT NULL, feature TEXT NOT NULL, time_ms INTEGER NOT NULL,"
    "result TEXT NOT NULL, PRIMARY KEY(host_id, feature));"
    "CREATE TABLE facts(name TEXT PRIMARY KEY, value INTEGER NOT NULL);",
    "CREATE TABLE users("
    "name TEXT PRIMARY KEY, role TEXT NOT NULL, password TEXT NOT NULL, totp TEXT NOT NULL,"
    "totp_step INTEGER NOT NULL, last_login_ms INTEGER NOT NULL);"
    "CREATE TABLE acts("
    "id INTEGER PRIMARY KEY, time_ms INTEGER NOT NULL, \"user\" TEXT NOT NULL, act TEXT NOT NULL);",
    "ALTER TABLE hosts ADD COLUMN revision INTEGER NOT NULL DEFAULT 0;",
    "CREATE TABLE act_results("
    "host_id INTEGER NOT NULL, number INTEGER NOT NULL, time_ms INTEGER NOT NULL,"
    "result TEXT NOT NULL, PRIMARY KEY(host_id, number));"
    "CREATE TABLE rollouts("
    "id INTEGER PRIMARY KEY, time_ms INTEGER NOT NULL, author TEXT NOT NULL, kind TEXT NOT NULL,"
    "name TEXT NOT NULL, number INTEGER NOT NULL, sha256 TEXT NOT NULL, document TEXT NOT NULL,"
    "expires_ms INTEGER NOT NULL, wave INTEGER NOT NULL, wave_begun_ms INTEGER NOT NULL,"
    "state TEXT NOT NULL, reason TEXT NOT NULL);"
    "CREATE TABLE rollout_hosts("
    "rollout_id INTEGER NOT NULL, host_id INTEGER NOT NULL, wave INTEGER NOT NULL,"
    "sent_ms INTEGER NOT NULL, PRIMARY KEY(rollout_id, host_id));",
    "CREATE TABLE marks(name TEXT PRIMARY KEY, value TEXT NOT NULL);"
    "CREATE INDEX reports_by_host ON reports(host_id, id);",
}};

}  // namespace Collector
