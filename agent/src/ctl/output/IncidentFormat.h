#pragma once

#include <notify/Incidents.h>

#include <string>

namespace Ctl {

using Notify::AddTo;
using Notify::AlarmFilter;
using Notify::AlarmRecord;
using Notify::Incident;
using Notify::Incidents;
using Notify::ReadAlarm;
using Notify::TreeOf;

/// One line with a line end: as FormatAlarm for one alarm, else with counts by type and outcome.
/// `more`: it continues what was printed before.
std::string FormatIncident(const Incident& incident, long long now_ms, bool more = false);

}  // namespace Ctl
