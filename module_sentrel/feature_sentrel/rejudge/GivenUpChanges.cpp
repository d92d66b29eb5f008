// Owns the changes whose retries were given up. It must not judge them (Rejudge has that done).
// Inotify task's thread.
#include "feature_sentrel/rejudge/GivenUpChanges.h"

namespace Engine {

bool GivenUpChanges::Keep(FileChange change) {
    Path path(change.watch_id, change.path);
    if (changes_.size() >= capacity_ && changes_.count(path) == 0) return false;
    changes_.insert_or_assign(std::move(path), std::move(change));
    return true;
}

void GivenUpChanges::Wake(const std::string& watch_id) {
    for (auto next = changes_.lower_bound({watch_id, ""});
         next != changes_.end() && next->first.first == watch_id; ++next) {
        due_.insert(next->first);
    }
}

std::optional<FileChange> GivenUpChanges::TakeDue() {
    if (due_.empty()) return std::nullopt;
    const auto due = changes_.extract(due_.extract(due_.begin()).value());
    return due.empty() ? std::nullopt : std::optional<FileChange>(due.mapped());
}

void GivenUpChanges::Clear() {
    changes_.clear();
    due_.clear();
}

}  // namespace Engine
