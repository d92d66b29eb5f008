#pragma once

#include <atomic>

namespace Agent {

/// Bounds how many threads of a pool may be inside one kind of long request, so that the rest of
/// the pool stays free for short ones. Any thread.
class ConcurrencyLimit {
  public:
    explicit ConcurrencyLimit(int count) : free_(count) {}

    /// Holds one slot while it lives, if there was one.
    class Holder {
      public:
        explicit Holder(ConcurrencyLimit& slots)
            : slots_(slots), held_(slots.free_.fetch_sub(1) > 0) {}
        ~Holder() { slots_.free_.fetch_add(1); }
        Holder(const Holder&) = delete;
        Holder& operator=(const Holder&) = delete;
        bool Held() const { return held_; }

      private:
        ConcurrencyLimit& slots_;
        const bool held_;
    };

  private:
    std::atomic<int> free_;
};

}  // namespace Agent
