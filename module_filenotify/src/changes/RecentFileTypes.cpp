// Owns: the kinds of the last kCapacity paths that disappeared. Must not own: what exists
// (NameIndex). Thread: the task's. Ownership passes: never.

#include "changes/RecentFileTypes.h"

#include <functional>

namespace Engine::FileNotify {

void RecentFileTypes::Remember(std::string_view path, bool was_directory) {
    const std::size_t key = std::hash<std::string_view>()(path);
    kinds_[key] = {was_directory, ++serial_};
    order_.emplace_back(key, serial_);
    while (order_.size() > kCapacity) {
        const auto [oldest, serial] = order_.front();
        order_.pop_front();
        const auto known = kinds_.find(oldest);
        if (known != kinds_.end() && known->second.serial == serial) kinds_.erase(known);
    }
}

bool RecentFileTypes::TakeChanged(std::string_view path, bool is_directory) {
    const auto known = kinds_.find(std::hash<std::string_view>()(path));
    if (known == kinds_.end()) return false;
    const bool changed = known->second.was_directory != is_directory;
    kinds_.erase(known);
    return changed;
}

}  // namespace Engine::FileNotify
