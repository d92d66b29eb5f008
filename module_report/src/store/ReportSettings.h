#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

namespace Engine {

/// Limits of the report module: the section "report" of conf/agent.json.
struct ReportSettings {
    int max_age_days = 90;
    int max_megabytes = 256;           ///< of the report database
    int alarms_rotate_megabytes = 16;  ///< of log/alarms.jsonl
    int alarms_keep_files = 5;         ///< number of rotated files

    std::int64_t MaxAgeMs() const { return max_age_days * 24LL * 3600 * 1000; }
    std::int64_t MaxBytes() const { return max_megabytes * 1024LL * 1024; }
    std::int64_t AlarmsRotateBytes() const { return alarms_rotate_megabytes * 1024LL * 1024; }
};

/// Reads the section. A wrong value or an unknown key is logged and the default holds.
ReportSettings ParseReportSettings(const Json::Value& section);

}  // namespace Engine
