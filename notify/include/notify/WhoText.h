#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace Notify {

/// Who made the change of a report, as its member "who" says (docs/who.md), for a reader. All texts
/// are printable.

/// "by sed, user 33, process 1234", with "probably" before it unless the answer is exact. Empty
/// when nobody is known.
std::string ShortWho(const Json::Value& report);

/// One line for each thing that is known, and why not more is. Empty when nobody was asked.
std::vector<std::string> WhoLines(const Json::Value& report);

}  // namespace Notify
