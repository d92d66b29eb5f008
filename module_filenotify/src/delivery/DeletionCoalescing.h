#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "delivery/PendingChange.h"

namespace Engine::FileNotify {

/// Returns how many names are known in and below a directory. None when the directory is unknown or
/// its watch does not request changes of directories.
using CountNames = std::function<std::optional<std::size_t>(const Subscription& subscription,
                                                            const std::string& path)>;

/// Returns changes of the directories that are cheaper to restore as a whole than by undoing each
/// of `deletions` in them. None of the directories contains another one. Each change is as old as
/// the oldest deletion it stands for. `deletion_cost`: the receiver's time to undo one deletion.
/// Reentrant; does not block.
std::vector<PendingChange> CoalesceDeletions(const std::vector<const PendingChange*>& deletions,
                                             const CountNames& count_names,
                                             std::chrono::nanoseconds deletion_cost);

}  // namespace Engine::FileNotify
