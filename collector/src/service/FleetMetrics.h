#pragma once

#include <string>

#include "service/Intake.h"
#include "store/FleetStore.h"

namespace Collector {

/// Stores the counters for the command `metrics`, in a transaction of the caller.
bool SaveCounters(FleetStore& store, const IntakeCounters& counters);
bool ReadCounters(FleetStore& store, IntakeCounters& counters);

/// The state of the fleet in the text format of Prometheus. False when the store fails.
bool FormatMetrics(FleetStore& store, const IntakeCounters& counters, std::string& text);

}  // namespace Collector
