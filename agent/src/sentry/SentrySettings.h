#pragma once

#include <json/value.h>

#include <string>

namespace Agent {

/// The section "sentry" of conf/agent.json.
struct SentrySettings {
    bool enabled = false;
    int answer_ms = 50;     ///< an open waits no longer for the sentry
    int most_percent = 20;  ///< of a protected path's files that may be wrong at once
    int heal_kb = 4096;     ///< a larger file is refused, not healed
    Json::Value section = Json::Value(Json::objectValue);  ///< the whole, for the sentry

    /// A fault is described in `error`, and the sentry is off then.
    static SentrySettings Read(const Json::Value& section, std::string& error);
};

}  // namespace Agent
