#include "commands/DatabaseAccess.h"

#include <iostream>

namespace Collector {

int Fail(const std::string& text) {
    std::cerr << "sentrel_collector: " << text << std::endl;
    return kExitFailed;
}

bool FindDatabase(const Arguments& arguments, std::string& path) {
    path = arguments.database;
    if (path.empty()) {
        CollectorSettings settings;
        std::string error;
        if (!ReadSettings(arguments.config, settings, error)) {
            Fail(error);
            return false;
        }
        path = settings.database;
    }
    return true;
}

bool OpenDatabase(const Arguments& arguments, FleetStore& store) {
    std::string path;
    if (!FindDatabase(arguments, path)) return false;
    if (store.OpenExisting(path)) return true;
    Fail("cannot read the database " + path + ": " + store.Error());
    return false;
}

}  // namespace Collector
