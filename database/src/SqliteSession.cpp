// Owns one connection to an SQLite file. Its statements are prepared once and kept.
#include <database/Sqlite.h>

#include <map>

#include "OpenSession.h"

namespace Database {

namespace {

constexpr int kBusyTimeoutMs = 5'000;
constexpr mode_t kMode = 0640;

// Synchronous FULL: what is committed must survive a loss of power. Incremental vacuum can only be
// chosen before the first table exists.
constexpr const char* kSettings =
    "PRAGMA auto_vacuum=INCREMENTAL;"
    "PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=FULL;"
    "PRAGMA temp_store=MEMORY;"
    "PRAGMA journal_size_limit=67108864;";

class SqliteRow : public Row {
  public:
    explicit SqliteRow(const SqliteRun& run) : run_(run) {}
    std::int64_t Int(int column) const override { return run_.Int(column); }
    std::string Bytes(int column) const override { return run_.Bytes(column); }

  private:
    const SqliteRun& run_;
};

struct Binder {
    SqliteRun& run;
    int index;
    void operator()(std::int64_t value) const { run.Bind(index, value); }
    void operator()(std::string_view text) const { run.BindText(index, text); }
    void operator()(const Blob& blob) const { run.BindBlob(index, blob.bytes); }
};

class SqliteSession : public Session {
  public:
    bool Open(const std::string& path, Mode mode) {
        const int code = mode == Mode::kMake ? connection_.Create(path, kMode, kBusyTimeoutMs)
                                             : connection_.Open(path, kBusyTimeoutMs);
        return code == SQLITE_OK && (mode == Mode::kExisting || Execute(kSettings));
    }

    bool Run(const std::string& sql, const Values& values, const Each& each) override {
        SqliteStatement* const statement = Prepared(sql);
        if (statement == nullptr) return false;
        SqliteRun run(*statement);
        for (std::size_t i = 0; i < values.size(); ++i) {
            std::visit(Binder{run, static_cast<int>(i) + 1}, values[i]);
        }
        int code = run.Step();
        for (; code == SQLITE_ROW; code = run.Step()) {
            if (each && !each(SqliteRow(run))) return true;
        }
        if (code == SQLITE_DONE) return true;
        // The text of the error does not outlive the statement's reset.
        error_ = connection_.Error();
        return false;
    }

    std::int64_t Changed() const override { return sqlite3_changes64(connection_.Handle()); }

    bool Begin() override { return Execute("BEGIN IMMEDIATE"); }
    bool Commit() override { return Execute("COMMIT"); }
    void Rollback() override { connection_.Execute("ROLLBACK"); }

    bool Migrate(const SchemaSteps& steps) override {
        if (Begin() && TakeSteps(steps) && Commit()) return true;
        Rollback();
        return false;
    }

    std::int64_t Size() override {
        std::int64_t bytes = 0;
        Run("SELECT page_count*page_size FROM pragma_page_count(),pragma_page_size()", {},
            [&](const Row& row) {
                bytes = row.Int(0);
                return true;
            });
        return bytes;
    }

    std::string Error() const override { return error_.empty() ? connection_.Error() : error_; }

  private:
    bool DoPost(const std::string& sql, const Values& values, bool must_change_one) override {
        if (!Run(sql, values, nullptr)) return false;
        if (!must_change_one || Changed() == 1) return true;
        error_ = "a row was changed by another process";
        return false;
    }

    bool Execute(const std::string& sql) {
        if (connection_.Execute(sql.c_str()) == SQLITE_OK) return true;
        error_ = connection_.Error();
        return false;
    }

    SqliteStatement* Prepared(const std::string& sql) {
        const auto found = statements_.find(sql);
        if (found != statements_.end()) return &found->second;
        SqliteStatement statement;
        if (statement.Prepare(connection_, sql) != SQLITE_OK) {
            error_ = connection_.Error();
            return nullptr;
        }
        return &statements_.emplace(sql, std::move(statement)).first->second;
    }

    /// Under the lock of the transaction.
    bool TakeSteps(const SchemaSteps& steps) {
        std::int64_t version = 0;
        const auto read = [&](const Row& row) {
            version = row.Int(0);
            return true;
        };
        if (!Run("PRAGMA user_version", {}, read)) return false;
        const auto count = static_cast<std::int64_t>(steps.size());
        if (version >= count) return true;
        for (; version < count; ++version) {
            if (!Execute(steps.at(static_cast<std::size_t>(version)))) return false;
        }
        return Execute("PRAGMA user_version=" + std::to_string(count));
    }

    SqliteConnection connection_;
    std::map<std::string, SqliteStatement> statements_;
    std::string error_;
};

}  // namespace

std::unique_ptr<Session> OpenSqlite(const std::string& path, Mode mode, std::string& error) {
    auto session = std::make_unique<SqliteSession>();
    if (session->Open(path, mode)) return session;
    error = session->Error();
    return nullptr;
}

}  // namespace Database
