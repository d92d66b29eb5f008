#pragma once

#include <cstdint>

#include "changes/RootTracker.h"
#include "delivery/Delivery.h"
#include "status/StatusPublisher.h"
#include "tree/WatchedTree.h"

namespace Engine::FileNotify {

/// Collects the status of the module's parts into a snapshot. Owned by NotifyCore. Not thread-safe.
class StatusCollector {
  public:
    StatusCollector(const WatchedTree& tree, const RootTracker& roots, const Delivery& delivery)
        : tree_(tree), roots_(roots), delivery_(delivery) {}

    /// Returns the current status. Does not block.
    StatusPublisher::Snapshot Collect() const;

  private:
    WatchStatus StatusOf(const Watch& watch) const;
    const char* StateOf(const Watch& watch, std::uint32_t unwatched) const;
    bool IsWalking(const Watch& watch) const;

    const WatchedTree& tree_;
    const RootTracker& roots_;
    const Delivery& delivery_;
};

}  // namespace Engine::FileNotify
