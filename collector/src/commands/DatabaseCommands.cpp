#include <sys/stat.h>
#include <unistd.h>

#include <iostream>

#include "commands/Commands.h"
#include "commands/DatabaseAccess.h"
#include "service/FleetMetrics.h"

namespace Collector {

int ShowMetrics(const Arguments& arguments) {
    FleetStore store;
    IntakeCounters counters;
    std::string text;
    if (!OpenDatabase(arguments, store)) return kExitFailed;
    if (!ReadCounters(store, counters) || !FormatMetrics(store, counters, text)) {
        return Fail("cannot read the database: " + store.Error());
    }
    std::cout << text << std::flush;
    return kExitOk;
}

int BackUp(const Arguments& arguments) {
    Database::Location location;
    if (!FindDatabase(arguments, location)) return kExitFailed;
    if (location.file.empty()) {
        return Fail("the database is PostgreSQL; use pg_dump -Fc -f FILE " + location.name);
    }
    FleetStore store;
    if (!OpenDatabase(arguments, store)) return kExitFailed;
    if (::access(arguments.file.c_str(), F_OK) == 0) return Fail(arguments.file + " exists");
    ::umask(077);  // it holds the hashes of passwords
    if (store.CopyTo(arguments.file)) return kExitOk;
    const std::string error = store.Error();
    ::unlink(arguments.file.c_str());
    return Fail("cannot back up to " + arguments.file + ": " + error);
}

}  // namespace Collector
