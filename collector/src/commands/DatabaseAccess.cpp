#include "commands/DatabaseAccess.h"

#include <iostream>

namespace Collector {

int Fail(const std::string& text) {
    std::cerr << "sentrel_collector: " << text << std::endl;
    return kExitFailed;
}

bool OpenDatabase(const Arguments& arguments, FleetStore& store) {
    std::string path = arguments.database;
    if (path.empty()) {
        CollectorSettings settings;
        std::string error;
        if (!ReadSettings(arguments.config, settings, error)) {
            Fail(error);
            return false;
        }
        path = settings.database;
    }
    if (store.OpenExisting(path)) return true;
    Fail("cannot read the database " + path + ": " + store.Error());
    return false;
}

}  // namespace Collector
