#pragma once

#include <atomic>
#include <cstdint>

namespace Engine::FileNotify {

/// Totals since the start. Owned by StatusPublisher. Written by the task's thread; thread-safe.
struct Counters {
    std::atomic<std::uint64_t> events_received{0};
    std::atomic<std::uint64_t> events_delivered{0};
    std::atomic<std::uint64_t> events_dropped{0};         ///< their watch was removed
    std::atomic<std::uint64_t> events_merged{0};          ///< an equal change was pending
    std::atomic<std::uint64_t> deletions_debounced{0};    ///< delayed until a burst ended
    std::atomic<std::uint64_t> directories_announced{0};  ///< because of many deletions in them
    std::atomic<std::uint64_t> overflows{0};
    std::atomic<std::uint64_t> watch_failures{0};
    std::atomic<std::uint64_t> pending{0};  ///< right now, not a total
};

}  // namespace Engine::FileNotify
