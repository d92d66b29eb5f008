#pragma once

#include <string>

#include "feature_sentrel/alarms/SentrelCacheMsg.h"

namespace Engine {

/// The record of a new alarm for the alarm cache.
SentrelCacheMsg AlarmRecord(const std::string& file_path, alarm_type type);

/// The document of an alarm: one line of JSON.
std::string AlarmText(const std::string& file_path, alarm_type type, const std::string& diff,
                      const std::string& diff_attr);

}  // namespace Engine
