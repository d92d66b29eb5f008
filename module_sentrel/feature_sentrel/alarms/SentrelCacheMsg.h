#pragma once

#include <ctime>
#include <map>
#include <string>

namespace Engine {

/// The kind of change that an alarm reports.
enum alarm_type : int {
    ALARM_ADD = 0,
    ALARM_DELETE = 1,
    ALARM_MODIFY = 2,
    ALARM_ATTRIBUTE = 3,
    ALARM_UNKNOWN = 4,
};

/// One recent alarm; repeats for the same file are counted into it.
struct SentrelCacheMsg {
    std::time_t occur_time = 0;
    unsigned long count = 0;  ///< alarms that this entry stands for
    alarm_type type = ALARM_UNKNOWN;
    std::map<alarm_type, unsigned long> type_counts;
    std::string file_path;
    unsigned int merge_key = 0;
};

}  // namespace Engine
