#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_set>

#include "WatchTicket.h"

namespace Engine::FileNotify {

/// One message that is still to be posted.
struct PendingChange {
    std::shared_ptr<const WatchTicket> ticket;
    std::string path;
    std::string moveto;
    std::uint32_t mask = 0;
    std::chrono::steady_clock::time_point read_time;
};

/// What waits for one receiver, in order. Of changes with the same watch, path and mask only the
/// first is kept: the receiver looks at the object when it gets the message, so one that it has
/// not had yet speaks for the later ones too. Not bounded by a number, but by the paths there are.
/// Task's thread only.
class PendingQueue {
  public:
    bool Push(PendingChange change);  ///< false: the same was waiting already
    bool Empty() const { return changes_.empty(); }
    std::size_t Size() const { return changes_.size(); }
    const PendingChange& Front() const { return changes_.front(); }
    void Pop();

  private:
    struct Hash {
        std::size_t operator()(const PendingChange* change) const;
    };
    struct Equal {
        bool operator()(const PendingChange* one, const PendingChange* other) const;
    };

    std::deque<PendingChange> changes_;
    std::unordered_set<const PendingChange*, Hash, Equal> known_;
};

}  // namespace Engine::FileNotify
