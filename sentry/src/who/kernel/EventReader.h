#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "who/process/Process.h"

namespace Sentry {

/// Reads the events of a fanotify group on a thread of its own, which does nothing else: the time
/// between a change and the reading of its event has to be short, or its author has begun another
/// program. Thread-safe.
class EventReader {
  public:
    /// More bytes are dropped.
    static constexpr std::size_t kMostBytes = 4 * 1024 * 1024;

    /// What one read(2) gave: events that happened in that time, in their order.
    struct Chunk {
        std::vector<char> bytes;
        Moment moment = {};  ///< of the first of them
    };

    /// Borrows `group`.
    explicit EventReader(int group);
    ~EventReader();
    EventReader(const EventReader&) = delete;
    EventReader& operator=(const EventReader&) = delete;

    /// The thread that waits for changes.
    pid_t Thread() const { return thread_id_; }

    /// Readable when there are chunks to take. TakeAll resets it.
    int Descriptor() const { return filled_.Get(); }

    /// All that was read. Waits a few milliseconds for what is still to be read.
    std::deque<Chunk> TakeAll();

    /// How often events were dropped.
    std::uint64_t Dropped() const { return dropped_; }

  private:
    void Work();
    void ReadOnce();

    const int group_;
    SDK::FileDescriptor filled_;
    SDK::FileDescriptor stop_;
    std::vector<char> buffer_;
    Nanoseconds begun_;  ///< the last read; of the thread
    Nanoseconds ended_;
    std::mutex mutex_;  ///< held while reading, so nothing is between the group and the queue
    std::deque<Chunk> chunks_;
    std::size_t bytes_ = 0;
    std::atomic<std::uint64_t> dropped_{0};
    std::atomic<pid_t> thread_id_{0};
    std::thread thread_;
};

/// CLOCK_MONOTONIC.
Nanoseconds Now();

}  // namespace Sentry
