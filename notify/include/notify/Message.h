#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "notify/Incidents.h"

namespace Notify {

/// The host that an alarm is of.
struct Origin {
    std::string host;
    std::string agent_id;
    std::string version;  ///< of the agent
};

/// What a person is told at once: the incidents of a short time, usually one.
struct Message {
    enum class Kind { kIncident, kDigest, kTest };

    Kind kind = Kind::kIncident;
    std::string id;  ///< the same when the message is repeated
    Origin origin;
    long long sent_ms = 0;
    std::vector<Incident> incidents;
    std::size_t left_out = 0;  ///< incidents beyond the limit of one message
    long long changes = 0;     ///< of all incidents
    long long lost = 0;        ///< reports that the store had dropped before they were sent
};

/// A message that says that it is a test.
Message TestMessage(const Origin& origin, long long now_ms);

}  // namespace Notify
