#pragma once

#include <atomic>
#include <cstdint>

namespace Engine::FileNotify {

/// What has been counted since the start. Written by the task's thread, read by any.
struct Counters {
    std::atomic<std::uint64_t> events_received{0};
    std::atomic<std::uint64_t> events_delivered{0};
    std::atomic<std::uint64_t> events_dropped{0};         ///< waited for a watch that was taken off
    std::atomic<std::uint64_t> events_merged{0};          ///< the same was waiting already
    std::atomic<std::uint64_t> deletions_settled{0};      ///< held back until a storm was over
    std::atomic<std::uint64_t> directories_announced{0};  ///< since much in them was deleted
    std::atomic<std::uint64_t> overflows{0};
    std::atomic<std::uint64_t> watch_failures{0};
    std::atomic<std::uint64_t> watches_given_up{
        0};  ///< of excluded directories, for protected ones
    std::atomic<std::uint64_t> pending{0};
};

}  // namespace Engine::FileNotify
