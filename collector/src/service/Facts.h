#pragma once

#include <cstdint>

namespace Collector {

// Facts in the store that tell others how the service works; times in milliseconds since the epoch.
constexpr const char* kAliveFact = "alive_ms";
constexpr const char* kListeningFact = "listening_ms";  ///< 0: no connection to the broker
constexpr std::int64_t kAliveEveryMs = 5'000;

}  // namespace Collector
