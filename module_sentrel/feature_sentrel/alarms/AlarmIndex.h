#pragma once

#include <cstddef>
#include <deque>
#include <list>
#include <string>
#include <unordered_map>

#include "feature_sentrel/alarms/SentrelCacheMsg.h"

namespace Engine {

/// Finds the cached alarms of a file without going through the whole cache, which in a storm would
/// cost more than most of what else an alarm needs. The cache remains what counts: when its length
/// or its ends are not those that are known, it is gone through anew. One thread.
class AlarmIndex {
  public:
    using Cache = std::list<SentrelCacheMsg>;
    using Entries = std::deque<SentrelCacheMsg*>;

    /// The file's entries in the order of the cache; valid until the cache changes.
    const Entries& Find(Cache& cache, const std::string& file_path);

    void PushBack(Cache& cache, const SentrelCacheMsg& msg);
    void PopFront(Cache& cache);

  private:
    void Follow(Cache& cache);
    void NoteEnds(const Cache& cache);

    std::unordered_map<std::string, Entries> by_path_;
    std::size_t size_ = 0;
    const SentrelCacheMsg* first_ = nullptr;
    const SentrelCacheMsg* last_ = nullptr;
};

}  // namespace Engine
