#include "UnwatchedList.h"

#include <sdk/Log.h>

#include <cerrno>
#include <system_error>

#include "NameIndex.h"

namespace Engine::FileNotify {

namespace {

constexpr std::chrono::minutes kLogAgainAfter{1};

std::string Advice(int error) {
    switch (error) {
        case ENOSPC:
            return " (raise fs.inotify.max_user_watches)";
        case EMFILE:
        case ENFILE:
            return " (raise the limit of open files)";
        default:
            return {};
    }
}

}  // namespace

void UnwatchedList::Add(DirNode& node, int error) {
    if (nodes_.insert(&node).second) ++counters_.watch_failures;
    const auto now = std::chrono::steady_clock::now();
    auto& next = next_log_[error];
    if (now < next) return;
    next = now + kLogAgainAfter;
    SDK_LOG(logger_, PRIO_WARNING, "cannot watch %s: %s%s; it is tried again, %z in all.",
            NameIndex::PathOf(node), std::generic_category().message(error), Advice(error),
            nodes_.size());
}

}  // namespace Engine::FileNotify
