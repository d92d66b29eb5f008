#pragma once

#include <database/Session.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <memory>
#include <string>
#include <vector>

#include "support/Child.h"
#include "support/TempDir.h"

namespace test {

/// Debian's PostgreSQL in a directory of its own, on a Unix socket alone and as an unprivileged
/// user. Asks for the password of its only user.
class Postgres {
  public:
    /// Fast: what is committed survives the end of the server, but not that of the machine.
    enum class Disk { kFast, kSafe };
    explicit Postgres(Disk disk = Disk::kFast);
    ~Postgres() { Stop(); }
    Postgres(const Postgres&) = delete;
    Postgres& operator=(const Postgres&) = delete;

    /// Starts it and waits until it answers.
    bool Start();
    /// At once, as after a loss of power; what is committed stays.
    void Stop() { process_.Stop(SIGQUIT); }

    Database::Location Location() const;
    Json::Value Config() const;  ///< the same in the collector's configuration

  private:
    const Disk disk_;
    TempDir dir_;
    Child process_;
};

enum class DatabaseKind { kSqlite, kPostgres };

/// An empty database of that kind, for tests of both.
class AnyDatabase {
  public:
    explicit AnyDatabase(DatabaseKind kind) {
        if (kind == DatabaseKind::kSqlite) return;
        server_ = std::make_unique<Postgres>();
        server_->Start();
    }
    Database::Location Location() const {
        return server_ ? server_->Location() : Database::Location(dir_.Path("fleet.db"));
    }
    Postgres& Server() const { return *server_; }

  private:
    TempDir dir_;
    std::unique_ptr<Postgres> server_;  ///< null: SQLite
};

inline std::string NameOfKind(const testing::TestParamInfo<DatabaseKind>& info) {
    return info.param == DatabaseKind::kSqlite ? "Sqlite" : "Postgres";
}

}  // namespace test
