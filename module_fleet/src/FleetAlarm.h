#pragma once

#include <string>

namespace Engine {

/// Reports an alarm of the fleet module itself; `name` is a word for the log.
void SendFleetAlarm(const std::string& name, const std::string& text);

}  // namespace Engine
