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

/// Empties the kernel's queue into memory and hands the records out in order. It merges and drops
/// nothing. Task's thread only.
class InotifyReader {
  public:
    using Time = std::chrono::steady_clock::time_point;

    explicit InotifyReader(InotifyDescriptor& descriptor) : descriptor_(descriptor) {}

    /// Reads until the kernel has nothing more or kMaxBufferedBytes wait here; the rest then stays
    /// in the kernel. Returns how many records came.
    std::size_t Fill();

    /// The last Fill has left nothing in the kernel.
    bool HasEmptied() const { return emptied_; }

    /// The oldest record, or null. Valid until Pop.
    const InotifyRecord* Front() const;
    Time FrontTime() const { return batches_.front().read_time; }
    void Pop();

    /// The record after the first one that has `cookie` and all bits of `mask`, or null; looks at
    /// most kLookAhead records far.
    const InotifyRecord* FindAhead(std::uint32_t cookie, std::uint32_t mask) const;

    /// The record `distance` after the first, or null.
    const InotifyRecord* Ahead(std::size_t distance) const;

    bool Empty() const { return waiting_ == 0; }
    std::size_t Size() const { return waiting_; }
    void Clear();

    static constexpr std::size_t kReadBytes = 256 * 1024;
    static constexpr std::size_t kMaxBufferedBytes = 64 * 1024 * 1024;
    static constexpr std::size_t kLookAhead = 256;

  private:
    struct Batch {
        std::unique_ptr<char[]> bytes;  ///< what the records' names point into
        std::size_t room = 0;           ///< there
        std::vector<InotifyRecord> records;
        std::size_t next = 0;
        Time read_time;
    };

    Batch TakeBatch(std::size_t size);

    InotifyDescriptor& descriptor_;
    std::deque<Batch> batches_;
    std::size_t buffered_ = 0;  ///< bytes
    std::size_t waiting_ = 0;   ///< records
    bool emptied_ = false;
    std::vector<char> scratch_;
    Batch spare_;  ///< used up; its memory serves again
};

}  // namespace Engine::FileNotify
