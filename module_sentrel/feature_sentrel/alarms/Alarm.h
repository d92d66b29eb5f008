#pragma once

#include <framework/Message.h>

#include <string>

#include "feature_sentrel/alarms/SentrelCacheMsg.h"

namespace Engine {

/// The content of an alarm.
struct Alarm {
    std::string file;
    alarm_type type = ALARM_UNKNOWN;
    std::string diff;
    std::string diff_attr;
    Framework::ReportNote note;
    unsigned long count = 1;  ///< changes that it stands for
};

}  // namespace Engine
