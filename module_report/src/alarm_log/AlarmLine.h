#pragma once

#include <string>

namespace Engine {

/// The line, with its end, under which an alarm stands in a file of one JSON object a line: `body`
/// as it is when it is one JSON object in valid UTF-8 without a line break; the same object written
/// anew when it is one otherwise; {"body": ...} around what is no object. Never throws on bad
/// input.
std::string AlarmLine(const std::string& body);

}  // namespace Engine
