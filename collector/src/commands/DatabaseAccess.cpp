#include "commands/DatabaseAccess.h"

#include <iostream>

namespace Collector {

int Fail(const std::string& text) {
    std::cerr << "sentrel_collector: " << text << std::endl;
    return kExitFailed;
}

bool FindDatabase(const Arguments& arguments, Database::Location& location) {
    location = arguments.database;
    if (!arguments.database.empty()) return true;
    CollectorSettings settings;
    std::string error;
    if (!ReadSettings(arguments.config, settings, error)) {
        Fail(error);
        return false;
    }
    location = settings.database;
    return true;
}

bool OpenDatabase(const Arguments& arguments, FleetStore& store) {
    Database::Location location;
    if (!FindDatabase(arguments, location)) return false;
    if (store.OpenExisting(location)) return true;
    Fail("cannot read the database " + location.Text() + ": " + store.Error());
    return false;
}

}  // namespace Collector
