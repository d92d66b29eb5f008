#pragma once

#include <string>

#include "commands/Commands.h"
#include "store/FleetStore.h"

namespace Collector {

/// Where the database is that the arguments or their configuration name. False: said on standard
/// error.
bool FindDatabase(const Arguments& arguments, Database::Location& location);

/// Opens the database that the arguments or their configuration name. False: said on standard
/// error.
bool OpenDatabase(const Arguments& arguments, FleetStore& store);

}  // namespace Collector
