#pragma once

#include <optional>
#include <string>

namespace Ctl {

/// A moment in seconds since the epoch: "90", "90s", "30m", "2h", "3d" or "1w" before `now_s`; a
/// number from 1000000000 on is itself one; "10:30", "2026-11-22", "2026-11-22 10:30" and
/// "2026-11-22 10:30:15" are local time. None for anything else.
std::optional<long long> ParseMoment(const std::string& text, long long now_s);

}  // namespace Ctl
