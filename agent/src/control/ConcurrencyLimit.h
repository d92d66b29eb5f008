#pragma once

#include <atomic>

namespace Agent {

/// Limits how many threads of a pool handle one kind of long request, so that the others stay free
/// for short ones. Thread-safe.
class ConcurrencyLimit {
  public:
    explicit ConcurrencyLimit(int count) : free_(count) {}

    /// Occupies one slot while it lives, if one was free.
    class Slot {
      public:
        explicit Slot(ConcurrencyLimit& limit)
            : limit_(limit), acquired_(limit.free_.fetch_sub(1) > 0) {}
        ~Slot() { limit_.free_.fetch_add(1); }
        Slot(const Slot&) = delete;
        Slot& operator=(const Slot&) = delete;
        bool IsAcquired() const { return acquired_; }

      private:
        ConcurrencyLimit& limit_;
        const bool acquired_;
    };

  private:
    std::atomic<int> free_;
};

}  // namespace Agent
