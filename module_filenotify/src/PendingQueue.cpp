#include "PendingQueue.h"

#include <functional>
#include <utility>

namespace Engine::FileNotify {

std::size_t PendingQueue::Hash::operator()(const PendingChange* change) const {
    return std::hash<std::string>()(change->path) ^ (change->mask * 0x9E3779B97F4A7C15ULL);
}

bool PendingQueue::Equal::operator()(const PendingChange* one, const PendingChange* other) const {
    return one->mask == other->mask && one->ticket == other->ticket && one->path == other->path &&
           one->moveto == other->moveto;
}

bool PendingQueue::Push(PendingChange change) {
    if (known_.count(&change) != 0) return false;
    changes_.push_back(std::move(change));
    known_.insert(&changes_.back());
    return true;
}

void PendingQueue::Pop() {
    known_.erase(&changes_.front());
    changes_.pop_front();
}

}  // namespace Engine::FileNotify
