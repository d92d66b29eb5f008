#pragma once

#include <string>

namespace Engine {

/// The line of an alarm, with its line end, for a file with one JSON object per line. A `body` that
/// is one JSON object in valid UTF-8 without a line break is used unchanged; any other JSON object
/// is written again; anything else becomes {"body": ...}. Never throws on bad input. Thread-safe.
std::string AlarmLine(const std::string& body);

}  // namespace Engine
