#pragma once

#include <database/Session.h>

#include <memory>
#include <string>

namespace Database {

// Null with `error`.
std::unique_ptr<Session> OpenSqlite(const std::string& path, Mode mode, std::string& error);
std::unique_ptr<Session> OpenPostgres(const Location& location, std::string& error);

}  // namespace Database
