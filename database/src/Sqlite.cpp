#include <database/Sqlite.h>
#include <fcntl.h>
#include <unistd.h>

namespace Database {

int SqliteConnection::Open(const std::string& path, int busy_timeout_ms) {
    sqlite3* handle = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
    const int code = sqlite3_open_v2(path.c_str(), &handle, flags, nullptr);
    handle_.reset(handle);
    if (code == SQLITE_OK) sqlite3_busy_timeout(handle, busy_timeout_ms);
    return code;
}

int SqliteConnection::Create(const std::string& path, mode_t mode, int busy_timeout_ms) {
    // Never opens an existing file: closing it would drop the locks of other connections.
    const int file = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, mode);
    if (file >= 0) ::close(file);
    return Open(path, busy_timeout_ms);
}

int SqliteConnection::Execute(const char* sql) {
    return sqlite3_exec(handle_.get(), sql, nullptr, nullptr, nullptr);
}

std::string SqliteConnection::Error() const {
    return sqlite3_errmsg(handle_.get());
}

int SqliteStatement::Prepare(const SqliteConnection& connection, const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    const int code =
        sqlite3_prepare_v3(connection.Handle(), sql.data(), static_cast<int>(sql.size()),
                           SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    statement_.reset(statement);
    return code;
}

SqliteRun::~SqliteRun() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
}

void SqliteRun::BindText(int index, std::string_view text) {
    sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

void SqliteRun::BindBlob(int index, std::string_view bytes) {
    // A null pointer would be bound as NULL; an empty body must be an empty blob.
    const char* data = bytes.data() != nullptr ? bytes.data() : "";
    sqlite3_bind_blob64(statement_, index, data, bytes.size(), SQLITE_STATIC);
}

std::string SqliteRun::Bytes(int column) const {
    const auto* data = static_cast<const char*>(sqlite3_column_blob(statement_, column));
    const int size = sqlite3_column_bytes(statement_, column);
    return data == nullptr ? std::string() : std::string(data, static_cast<std::size_t>(size));
}

}  // namespace Database
