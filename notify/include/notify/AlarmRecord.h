#pragma once

#include <json/value.h>

#include <string>

namespace Notify {

/// One alarm as its report says it. A report is what the report store answers: an object with
/// "seq", "time_ms", "body" (the alarm document), "outcome", "duration_ms" and "evidence". A
/// collector adds "host" and "agent_id". What it tells of a host itself, such as "silent", is an
/// alarm without a path.
struct AlarmRecord {
    bool is_alarm = false;  ///< the report has an alarm document; else only the time is set
    long long time_ms = 0;  ///< since the epoch
    long long count = 1;    ///< changes that it stands for
    long long seq = 0;
    std::string action;  ///< "add", "delete", "modify", "attribute", "unknown"
    std::string path;    ///< raw
    std::string outcome;
    double duration_ms = -1;    ///< below 0: unknown
    std::string host = {};      ///< raw; empty: the host of the message
    std::string agent_id = {};  ///< empty: that of the message
    std::string who = {};       ///< ShortWho; empty: not known
};

AlarmRecord ReadAlarm(const Json::Value& report);

/// Which alarms are wanted. Empty texts and zero times want all.
struct AlarmFilter {
    std::string path;  ///< this object and all below it
    std::string action;
    std::string outcome;     ///< a part of it
    long long since_ms = 0;  ///< inclusive
    long long until_ms = 0;  ///< inclusive

    bool Matches(const AlarmRecord& alarm) const;
};

}  // namespace Notify
