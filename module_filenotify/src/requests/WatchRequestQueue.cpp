// Owns: the valid subscriptions and the requests that are not applied yet.
// Must not own: the watches (WatchMatcher).
// Threads: Submit runs on senders' threads, Take and Close on the task's.
// Ownership passes: Take hands the requests to NotifyCore.

#include "requests/WatchRequestQueue.h"

#include <sys/inotify.h>

#include <algorithm>

namespace Engine::FileNotify {

namespace {

std::string WithoutSlashes(const std::string& text) {
    const std::size_t from = text.find_first_not_of('/');
    if (from == std::string::npos) return {};
    return text.substr(from, text.find_last_not_of('/') - from + 1);
}

}  // namespace

std::string WatchRequestQueue::Submit(const FileNotifyWatchMessage& message) {
    const std::string& path = message.GetPath();
    const bool remove = message.GetOptions().remove;
    if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos) return {};
    if (message.GetReceiverId().empty()) return {};
    if (!remove && (message.GetMask() & IN_ALL_EVENTS) == 0) return {};

    const std::size_t last = path.find_last_not_of('/');
    std::string id = last == std::string::npos ? "/" : path.substr(0, last + 1);
    WatchRequest request = Translate(message);
    if (!remove && find_ignored_)
        request.ignored_prefixes = find_ignored_(message.GetReceiverId(), path);
    const std::lock_guard lock(mutex_);
    const Key key(message.GetReceiverId(), id);
    const auto known = subscriptions_.find(key);
    if (remove) {
        if (known == subscriptions_.end()) return id;
        request.subscription = known->second;
        request.subscription->Revoke();
        subscriptions_.erase(known);
    } else if (known != subscriptions_.end()) {
        request.subscription = known->second;
    } else {
        request.subscription = std::make_shared<Subscription>(message.GetReceiverId(), id);
        subscriptions_.emplace(key, request.subscription);
    }
    requests_.push_back(std::move(request));
    return id;
}

WatchRequest WatchRequestQueue::Translate(const FileNotifyWatchMessage& message) {
    const _FileNotifyOpt& options = message.GetOptions();
    WatchRequest request;
    request.remove = options.remove;
    request.components = Split(message.GetPath());
    request.mask = message.GetMask();
    request.recursive = options.recursive;
    request.report_directories = options.report_directories;
    request.rewatch = options.rewatch;
    request.names_directory = message.GetPath().back() == '/';
    for (const std::string& suffix : options.excluded_suffixes) {
        if (!suffix.empty()) request.excluded_suffixes.push_back(suffix);
    }
    for (const std::string& subdir : options.excluded_subdirs) {
        const std::string plain = WithoutSlashes(subdir);
        if (!plain.empty()) request.excluded_subdirs.push_back(plain);
    }
    return request;
}

std::vector<WatchRequest> WatchRequestQueue::Take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(requests_, {});
}

void WatchRequestQueue::Close() {
    const std::lock_guard lock(mutex_);
    for (const auto& [key, subscription] : subscriptions_) subscription->Revoke();
    subscriptions_.clear();
    requests_.clear();
}

std::vector<std::string> WatchRequestQueue::Split(const std::string& path) {
    std::vector<std::string> components;
    for (std::size_t at = 0; at < path.size();) {
        const std::size_t end = std::min(path.find('/', at), path.size());
        const std::string part = path.substr(at, end - at);
        at = end + 1;
        if (part.empty() || part == ".") continue;
        if (part != "..") {
            components.push_back(part);
        } else if (!components.empty()) {
            components.pop_back();
        }
    }
    return components;
}

}  // namespace Engine::FileNotify
