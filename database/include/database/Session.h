#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Database {

/// Bytes that are no text; borrowed.
struct Blob {
    explicit Blob(std::string_view all) : bytes(all) {}
    std::string_view bytes;
};

/// A value of a parameter. Texts are valid UTF-8 without NUL bytes; borrowed.
using Value = std::variant<std::int64_t, std::string_view, Blob>;
using Values = std::vector<Value>;

/// A row of a result; valid while it is handed over. Columns count from 0.
class Row {
  public:
    virtual ~Row() = default;
    virtual std::int64_t Int(int column) const = 0;   ///< 0 for NULL
    virtual std::string Bytes(int column) const = 0;  ///< a text or blob; empty for NULL
};

/// One step from a version of a schema to the next one: statements that both databases understand.
/// The first step makes version 1.
using SchemaSteps = std::vector<std::string>;

/// One connection to an SQLite file or a PostgreSQL server. Statements are written once for both:
/// parameters are ?1, ?2, ..., each is used, and columns are INTEGER, TEXT or BLOB. Operations
/// return false on failure; Error says why. Not thread-safe.
class Session {
  public:
    virtual ~Session() = default;

    /// False: stop. Must not use the session.
    using Each = std::function<bool(const Row& row)>;

    /// Carries out one statement and hands over its rows. Blocks.
    virtual bool Run(const std::string& sql, const Values& values, const Each& each) = 0;
    bool Run(const std::string& sql, const Values& values) { return Run(sql, values, nullptr); }

    /// How many rows the last Run has changed.
    virtual std::int64_t Changed() const = 0;

    /// Carries out a statement without rows, at the latest with the next Run or Commit, which fails
    /// when this statement does. Only in a transaction.
    bool Post(const std::string& sql, const Values& values) { return DoPost(sql, values, false); }

    /// The same; a statement that does not change exactly one row is a failure.
    bool PostOne(const std::string& sql, const Values& values) { return DoPost(sql, values, true); }

    /// A lost connection to a server is made anew, at most once a second.
    virtual bool Begin() = 0;
    virtual bool Commit() = 0;  ///< what it has stored survives a loss of power
    virtual void Rollback() = 0;

    /// Brings the tables to the version of the last step; other processes may try the same.
    virtual bool Migrate(const SchemaSteps& steps) = 0;

    /// Bytes that the database uses; 0 when that is unknown.
    virtual std::int64_t Size() = 0;

    virtual std::string Error() const = 0;

  private:
    virtual bool DoPost(const std::string& sql, const Values& values, bool must_change_one) = 0;
};

/// Where a database is.
struct Location {
    Location() = default;
    // Implicit: a path is what most places name.
    Location(std::string path) : file(std::move(path)) {}  // NOLINT(google-explicit-constructor)
    Location(const char* path) : file(path) {}             // NOLINT(google-explicit-constructor)

    std::string file;  ///< of SQLite; empty: a PostgreSQL server
    std::string host;  ///< name or address; begins with "/": the directory of its socket
    int port = 5432;
    std::string name = "sentrel";  ///< of the database
    std::string user;              ///< empty: the name of the process's user
    std::string password_file;     ///< its first line; empty: none, as with peer authentication
    std::string ca_file;           ///< of the server's certificate; empty: no TLS

    std::string Text() const;  ///< for people; without secrets
};

enum class Mode {
    kMake,     ///< makes an SQLite file (mode 0640) that is missing
    kExisting  ///< a missing file is a failure
};

/// Opens the database. Null with `error`.
std::unique_ptr<Session> Open(const Location& location, Mode mode, std::string& error);

}  // namespace Database
