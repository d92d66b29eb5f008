#pragma once

#include "commands/Commands.h"
#include "store/FleetStore.h"

namespace Collector {

/// Opens the database that the arguments or their configuration name. False: said on standard
/// error.
bool OpenDatabase(const Arguments& arguments, FleetStore& store);

}  // namespace Collector
