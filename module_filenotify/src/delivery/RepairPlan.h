#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "delivery/PendingChange.h"

namespace Engine::FileNotify {

/// How many names are known in and below a directory; none when it is not there or its watch does
/// not ask for changes of directories.
using NamesBelow = std::function<std::optional<std::size_t>(const Subscription& subscription,
                                                            const std::string& path)>;

/// The directories whose content is to be put back as a whole rather than name by name, given what
/// has been deleted in and below them; none of them lies in another one. A receiver reads all that
/// a directory holds, but only once, while every single name costs it `one_deletion`.
///
/// Each is a change of its directory, as old as the oldest deletion.
std::vector<PendingChange> PlanRepairs(const std::vector<const PendingChange*>& deletions,
                                       const NamesBelow& names_below,
                                       std::chrono::nanoseconds one_deletion);

}  // namespace Engine::FileNotify
