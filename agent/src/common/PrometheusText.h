#pragma once

#include <json/value.h>

#include <string>

namespace Agent {

/// The status document in the text format of Prometheus. What the document does not have is left
/// out. Stateless; thread-safe.
std::string FormatMetrics(const Json::Value& status);

}  // namespace Agent
