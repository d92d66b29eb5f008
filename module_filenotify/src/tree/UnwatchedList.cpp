// Owns: the list of unwatched directories. Must not own: the nodes (NameIndex), nor the retries
// (UnwatchedRetry). Thread: the task's. Ownership passes: never.

#include "tree/UnwatchedList.h"

#include <sdk/log/Log.h>

#include <cerrno>
#include <system_error>

#include "index/NameIndex.h"

namespace Engine::FileNotify {

namespace {

constexpr std::chrono::minutes kLogAgainAfter{1};

std::string Reason(int error) {
    std::string text = std::generic_category().message(error);
    switch (error) {
        case ENOSPC:
            return text + " (raise fs.inotify.max_user_watches)";
        case EMFILE:
        case ENFILE:
            return text + " (raise the limit of open files)";
        default:
            return text;
    }
}

}  // namespace

void UnwatchedList::Add(DirNode& node, int error) {
    if (nodes_.insert_or_assign(&node, error).second) ++counters_.watch_failures;
    const auto now = std::chrono::steady_clock::now();
    auto& next = next_log_[error];
    if (now < next) return;
    next = now + kLogAgainAfter;
    SDK_LOG(logger_, PRIO_WARNING, "cannot watch %s: %s; retrying, %z unwatched directories.",
            NameIndex::PathOf(node), Reason(error), nodes_.size());
}

std::vector<DirNode*> UnwatchedList::All() const {
    std::vector<DirNode*> nodes;
    for (const auto& [node, error] : nodes_) nodes.push_back(node);
    return nodes;
}

std::vector<UnwatchedDirectory> UnwatchedList::Examples(std::size_t count) const {
    std::vector<UnwatchedDirectory> examples;
    for (auto it = nodes_.begin(); it != nodes_.end() && examples.size() < count; ++it) {
        examples.push_back({NameIndex::PathOf(*it->first), Reason(it->second)});
    }
    return examples;
}

}  // namespace Engine::FileNotify
