#pragma once

#include <cstddef>

#include "ctl/client/ControlClient.h"
#include "ctl/output/IncidentFormat.h"

namespace Ctl {

struct AlarmOptions {
    static constexpr std::size_t kDefaultLimit = 50;
    AlarmFilter filter;
    std::size_t limit = kDefaultLimit;  ///< lines; 0: all
    bool follow = false;
    bool all = false;  ///< each alarm, no incidents
    bool diff = false;
    bool json = false;
};

/// Shows the newest incidents, or each alarm; with `follow` those that come.
int ShowAlarms(const ControlClient& client, const AlarmOptions& options);

}  // namespace Ctl
