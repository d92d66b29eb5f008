#include "Sessions.h"

#include <utility>

#include "console/Access.h"

namespace Console {

std::string Sessions::Begin(User user) {
    std::string id = RandomToken();
    const auto now = Clock::now();
    const std::lock_guard<std::mutex> lock(mutex_);
    DropIdle(now);
    known_[id] = {{std::move(user), RandomToken()}, now};
    return id;
}

std::optional<Sessions::Session> Sessions::Find(const std::string& id) {
    const auto now = Clock::now();
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = known_.find(id);
    if (found == known_.end()) return {};
    if (now - found->second.last_used > idle_limit_) {
        known_.erase(found);
        return {};
    }
    found->second.last_used = now;
    return found->second.session;
}

void Sessions::End(const std::string& id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    known_.erase(id);
}

void Sessions::DropIdle(Clock::time_point now) {
    auto oldest = known_.end();
    for (auto one = known_.begin(); one != known_.end();) {
        if (now - one->second.last_used > idle_limit_) {
            one = known_.erase(one);
            continue;
        }
        if (oldest == known_.end() || one->second.last_used < oldest->second.last_used) {
            oldest = one;
        }
        ++one;
    }
    if (known_.size() >= kMost) known_.erase(oldest);
}

}  // namespace Console
