#pragma once

#include <string>

#include "feature_sentrel/alarms/Alarm.h"

namespace Engine {

/// The record of a new alarm for the alarm cache.
SentrelCacheMsg AlarmRecord(const std::string& file_path, alarm_type type);

/// The document of an alarm: one line of JSON.
std::string AlarmText(const Alarm& alarm);

}  // namespace Engine
