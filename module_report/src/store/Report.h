#pragma once

#include <cstdint>
#include <string>

namespace Engine {

constexpr const char* kCmdKind = "cmd";
constexpr const char* kDataKind = "data";
constexpr const char* kAlarmEvent = "2";  ///< the event of data reports that are alarms

/// One report as the store keeps it. Strings are bytes: a body may hold anything.
struct Report {
    std::int64_t seq = 0;      ///< set by the store; increases, never reused
    std::int64_t time_ms = 0;  ///< since the epoch, set by the store
    std::string kind;          ///< kCmdKind or kDataKind
    std::string name;          ///< message id (cmd) or event (data)
    std::string body;
    std::string outcome;        ///< empty: unknown
    double duration_ms = -1;    ///< negative: unknown
    std::string evidence;       ///< empty: nothing was kept
    std::string who;            ///< a JSON object; empty: nobody was asked
    bool is_json_line = false;  ///< the sender guarantees the form of the body; not stored
};

/// Which reports to read.
struct ReportFilter {
    enum class Kind { kAny, kCmd, kData, kAlarm };

    Kind kind = Kind::kAny;
    std::int64_t after = 0;     ///< only reports with a greater sequence number
    std::int64_t since_ms = 0;  ///< only reports of that time or later; 0: any
    std::int64_t limit = 100;
    bool newest = false;  ///< beyond the limit keep the newest instead of the oldest
};

}  // namespace Engine
