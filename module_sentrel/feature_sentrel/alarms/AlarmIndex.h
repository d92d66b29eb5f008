#pragma once

#include <cstddef>
#include <deque>
#include <list>
#include <string>
#include <unordered_map>

#include "feature_sentrel/alarms/SentrelCacheMsg.h"

namespace Engine {

/// Finds the cached alarms of a file without a search through the whole cache, which would dominate
/// the cost of an alarm in a storm. The cache is the truth: when its length or its ends have
/// changed, the index is built anew. Not thread-safe.
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
