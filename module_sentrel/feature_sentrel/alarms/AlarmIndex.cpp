// Owns an index into the alarm cache. The cache itself belongs to the inotify task. Inotify task's
// thread.
#include "feature_sentrel/alarms/AlarmIndex.h"

namespace Engine {

const AlarmIndex::Entries& AlarmIndex::Find(Cache& cache, const std::string& file_path) {
    static const Entries none;
    Follow(cache);
    const auto found = by_path_.find(file_path);
    return found == by_path_.end() ? none : found->second;
}

void AlarmIndex::PushBack(Cache& cache, const SentrelCacheMsg& msg) {
    Follow(cache);
    cache.push_back(msg);
    by_path_[msg.file_path].push_back(&cache.back());
    NoteEnds(cache);
}

void AlarmIndex::PopFront(Cache& cache) {
    Follow(cache);
    const auto found = by_path_.find(cache.front().file_path);
    if (found != by_path_.end()) {
        found->second.pop_front();
        if (found->second.empty()) by_path_.erase(found);
    }
    cache.pop_front();
    NoteEnds(cache);
}

void AlarmIndex::Follow(Cache& cache) {
    const bool same_ends = cache.empty() || (&cache.front() == first_ && &cache.back() == last_);
    if (cache.size() == size_ && same_ends) return;
    by_path_.clear();
    for (SentrelCacheMsg& entry : cache) by_path_[entry.file_path].push_back(&entry);
    NoteEnds(cache);
}

void AlarmIndex::NoteEnds(const Cache& cache) {
    size_ = cache.size();
    first_ = cache.empty() ? nullptr : &cache.front();
    last_ = cache.empty() ? nullptr : &cache.back();
}

}  // namespace Engine
