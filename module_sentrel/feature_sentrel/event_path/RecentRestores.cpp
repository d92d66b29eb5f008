// Owns the record of recent restores, bounded in time and number. It must not judge changes (the
// inotify task does). Inotify task's thread.
#include "feature_sentrel/event_path/RecentRestores.h"

#include <sdk/files/PathUtils.h>

#include <utility>

namespace Engine {

void RecentRestores::Note(const std::string& path, Clock::time_point begun, Clock::time_point ended,
                          std::optional<Identity> object) {
    const std::string plain = SDK::PathUtils::WithoutTrailingSlash(path);
    latest_[plain] = {begun, ended};
    by_age_.emplace_back(ended, plain);
    if (object) by_inode_.insert_or_assign(object->inode, std::make_pair(plain, *object));
    // A second restore of a path leaves the number of the first one behind.
    if (by_inode_.size() > kCapacity) by_inode_.clear();
    while (by_age_.front().first + kEchoTime < ended || by_age_.size() > kCapacity) {
        const auto known = latest_.find(by_age_.front().second);
        if (known != latest_.end() && known->second.ended <= by_age_.front().first) {
            latest_.erase(known);
        }
        by_age_.pop_front();
    }
}

const std::pair<std::string, RecentRestores::Identity>* RecentRestores::FindInode(
    ino_t inode) const {
    const auto found = by_inode_.find(inode);
    return found == by_inode_.end() ? nullptr : &found->second;
}

bool RecentRestores::MayEcho(const std::string& path, Clock::time_point read_time) const {
    std::string at = SDK::PathUtils::WithoutTrailingSlash(path);
    while (!at.empty()) {
        const auto known = latest_.find(at);
        if (known != latest_.end() && read_time >= known->second.begun &&
            read_time <= known->second.ended + kEchoTime) {
            return true;
        }
        at.resize(at.rfind('/') == std::string::npos ? 0 : at.rfind('/'));
    }
    return false;
}

bool RecentRestores::IsLaterThan(const std::string& path, Clock::time_point read_time) const {
    const auto known = latest_.find(SDK::PathUtils::WithoutTrailingSlash(path));
    return known != latest_.end() && known->second.ended >= read_time;
}

}  // namespace Engine
