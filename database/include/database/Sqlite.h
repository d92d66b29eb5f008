#pragma once

#include <sqlite3.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace Database {

struct SqliteCloser {
    void operator()(sqlite3* handle) const { sqlite3_close_v2(handle); }
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

/// One connection to a database file. Not thread-safe; the owner locks.
class SqliteConnection {
  public:
    /// Opens an existing file; an empty one is an empty database. Returns an SQLite result code.
    /// Blocks at most `busy_timeout_ms` for a lock, here and later.
    int Open(const std::string& path, int busy_timeout_ms);

    /// The same; makes an empty file of that mode when there is none. SQLite gives its other files
    /// the same mode.
    int Create(const std::string& path, mode_t mode, int busy_timeout_ms);
    void Close() { handle_.reset(); }
    bool IsOpen() const { return handle_ != nullptr; }

    /// Runs statements without parameters or results. Returns an SQLite result code.
    int Execute(const char* sql);

    sqlite3* Handle() const { return handle_.get(); }

    /// The text of the last error.
    std::string Error() const;

  private:
    std::unique_ptr<sqlite3, SqliteCloser> handle_;
};

/// A prepared statement; must not outlive its connection.
class SqliteStatement {
  public:
    int Prepare(const SqliteConnection& connection, const std::string& sql);

  private:
    friend class SqliteRun;
    std::unique_ptr<sqlite3_stmt, SqliteCloser> statement_;
};

/// One run of a prepared statement; the destructor resets it. Bound bytes must outlive the run.
class SqliteRun {
  public:
    explicit SqliteRun(SqliteStatement& statement) : statement_(statement.statement_.get()) {}
    ~SqliteRun();
    SqliteRun(const SqliteRun&) = delete;
    SqliteRun& operator=(const SqliteRun&) = delete;

    void Bind(int index, std::int64_t value) { sqlite3_bind_int64(statement_, index, value); }
    void Bind(int index, double value) { sqlite3_bind_double(statement_, index, value); }
    void BindText(int index, std::string_view text);
    void BindBlob(int index, std::string_view bytes);

    /// SQLITE_ROW, SQLITE_DONE, or an error.
    int Step() { return sqlite3_step(statement_); }

    bool IsNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
    std::int64_t Int(int column) const { return sqlite3_column_int64(statement_, column); }
    double Double(int column) const { return sqlite3_column_double(statement_, column); }
    std::string Bytes(int column) const;

  private:
    sqlite3_stmt* statement_;
};

}  // namespace Database
