#pragma once

#include <string>

#include "notify/Message.h"

namespace Notify {

/// "2026-11-22T10:30:15.250Z".
std::string UtcTime(long long epoch_ms);

/// "3 restored, 2 removal failed", the most frequent first.
std::string CountsText(const std::map<std::string, long long>& counts);

/// "modify /srv/www/a: restored in 2.5 ms".
std::string AlarmText(const AlarmRecord& alarm);

/// "/srv/www/", "/srv/www/ of www1".
std::string PlaceText(const Incident& incident);

bool IsFailure(const std::string& outcome);

}  // namespace Notify
