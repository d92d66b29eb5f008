#pragma once

#include <json/value.h>

#include <string>

namespace Ctl {

// Reads members of the agent's documents for people. A missing member, or one of another type, is
// empty, 0 or false.

/// Safe to print.
std::string Text(const Json::Value& object, const char* key);
long long Number(const Json::Value& object, const char* key);
bool Flag(const Json::Value& object, const char* key);

/// "1 path", "2 paths".
std::string Counted(long long count, const std::string& noun);

/// The time of day, or with its date when that is not today; "never" for 0.
std::string When(long long epoch_s, long long now_ms);

/// "just now", "12 seconds ago", "3 minutes ago", "5 days ago".
std::string Ago(long long epoch_s, long long now_ms);

}  // namespace Ctl
