#include <database/Session.h>

#include "OpenSession.h"

namespace Database {

std::string Location::Text() const {
    return file.empty() ? name + " at " + host + ":" + std::to_string(port) : file;
}

std::unique_ptr<Session> Open(const Location& location, Mode mode, std::string& error) {
    return location.file.empty() ? OpenPostgres(location, error)
                                 : OpenSqlite(location.file, mode, error);
}

}  // namespace Database
