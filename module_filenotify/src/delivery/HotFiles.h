#pragma once

#include "delivery/ExpiringHashes.h"

namespace Engine::FileNotify {

/// Remembers hot files: files that changed again while an earlier change was pending. Their changes
/// have lower priority, so that thousands of rewritten files do not delay a page that changes once.
/// A hash collision only gives one hot file normal priority once. Owned by PendingQueue. Not
/// thread-safe.
class HotFiles {
  public:
    using Time = ExpiringHashes::Time;

    /// Events within this time belong to one write.
    static constexpr std::chrono::milliseconds kOneWrite{5};
    static constexpr std::chrono::milliseconds kHotFor{1000};

    void MarkHot(std::size_t path_hash, Time now) { hot_.Remember(path_hash, now + kHotFor); }
    bool IsHot(std::size_t path_hash, Time now) const { return hot_.Has(path_hash, now); }

  private:
    ExpiringHashes hot_;
};

}  // namespace Engine::FileNotify
