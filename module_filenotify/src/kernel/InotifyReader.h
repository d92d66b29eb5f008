#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "kernel/InotifyRecord.h"

namespace Engine::FileNotify {

class InotifyDescriptor;

/// Moves the kernel's queue into memory and returns the records in order, without merging or
/// dropping any. Owned by NotifyCore. Not thread-safe.
class InotifyReader {
  public:
    using Time = std::chrono::steady_clock::time_point;

    explicit InotifyReader(InotifyDescriptor& descriptor) : descriptor_(descriptor) {}

    /// Reads until the kernel's queue is empty or kMaxBufferedBytes are buffered; the rest then
    /// stays in the kernel. Returns the number of new records. A read error ends it like an empty
    /// queue. Does not block.
    std::size_t Fill();

    /// True when the last Fill emptied the kernel's queue.
    bool HasEmptied() const { return emptied_; }

    /// The oldest record; null when empty. Valid until Pop or Clear.
    const InotifyRecord* Front() const;
    Time FrontTime() const { return batches_.front().read_time; }
    void Pop();

    /// Finds a record behind the first one that has `cookie` and all bits of `mask`. Looks at most
    /// kLookAhead records ahead. Null when there is none.
    const InotifyRecord* FindAhead(std::uint32_t cookie, std::uint32_t mask) const;

    /// The record `distance` positions behind the first; null when there is none.
    const InotifyRecord* Peek(std::size_t distance) const;

    bool Empty() const { return unhandled_ == 0; }
    std::size_t Size() const { return unhandled_; }
    void Clear();

    static constexpr std::size_t kReadBytes = 256 * 1024;
    static constexpr std::size_t kMaxBufferedBytes = 64 * 1024 * 1024;
    static constexpr std::size_t kLookAhead = 256;

  private:
    struct Batch {
        std::unique_ptr<char[]> bytes;  ///< the names of the records point into it
        std::size_t capacity = 0;       ///< of `bytes`
        std::vector<InotifyRecord> records;
        std::size_t next = 0;
        Time read_time;
    };

    Batch TakeBatch(std::size_t size);

    InotifyDescriptor& descriptor_;
    std::deque<Batch> batches_;
    std::size_t buffered_ = 0;   ///< bytes read since it was empty
    std::size_t unhandled_ = 0;  ///< records not popped yet
    bool emptied_ = false;
    std::vector<char> scratch_;
    Batch spare_;  ///< handled; its memory is reused
};

}  // namespace Engine::FileNotify
