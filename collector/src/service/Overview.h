#pragma once

#include <json/value.h>

#include "store/FleetStore.h"

namespace Collector {

/// The fleet at a glance, as the database has it.
struct Overview {
    Json::Value hosts{Json::arrayValue};  ///< as `status --json` prints them
    int silent = 0;
    int degraded = 0;  ///< or off; not silent
    bool running = false;
    bool listening = false;
};

bool ReadOverview(FleetStore& store, Overview& overview);

}  // namespace Collector
