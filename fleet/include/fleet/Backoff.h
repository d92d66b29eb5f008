#pragma once

#include <cstdint>
#include <random>

namespace Fleet {

/// How long to wait before the next connection: longer after each failure, and by chance up to half
/// less or more, so that hosts do not come back at the same moment. Not thread-safe.
class Backoff {
  public:
    Backoff(std::int64_t first_ms, std::int64_t most_ms);

    /// A connection has ended. `lasted`: it had worked, so that the waits begin anew.
    void Ended(bool lasted);

    std::int64_t WaitMs() const { return wait_ms_; }

  private:
    void Choose();

    const std::int64_t first_ms_;
    const std::int64_t most_ms_;
    std::int64_t base_ms_;
    std::int64_t wait_ms_ = 0;
    std::minstd_rand random_;
};

}  // namespace Fleet
