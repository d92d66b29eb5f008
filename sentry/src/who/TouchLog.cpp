#include "who/TouchLog.h"

#include <algorithm>

namespace Sentry {

namespace {

bool IsSame(const Touch& known, const Touch& touch) {
    return known.process == touch.process && known.pid == touch.pid;
}

/// The same process has just changed the object, too, and more is known of it then.
bool IsSurer(const Touch& known, const Touch& touch) {
    return known.is_exact && !touch.is_exact && touch.process != nullptr &&
           known.process->IsSame(*touch.process) && touch.first - known.last < kSecond;
}

}  // namespace

void TouchLog::Add(const std::string& path, const Touch& touch) {
    const auto [found, is_new] = objects_.try_emplace(path);
    Object& object = found->second;
    if (is_new) {
        object.place = order_.insert(order_.end(), path);
    } else {
        order_.splice(order_.end(), order_, object.place);
    }
    std::vector<Touch>& touches = object.touches;
    Touch merged = touch;
    const auto same = std::find_if(touches.begin(), touches.end(), [&](const Touch& known) {
        return IsSame(known, touch) || IsSurer(known, touch);
    });
    if (same != touches.end()) {
        if (IsSurer(*same, touch)) merged = *same;
        merged.first = same->first;
        merged.last = touch.last;
        touches.erase(same);
    } else if (touches.size() >= kMostTouches) {
        touches.erase(touches.begin());
    }
    touches.push_back(merged);
    if (objects_.size() > kMostObjects) Drop();
}

const std::vector<Touch>& TouchLog::Of(const std::string& path) const {
    static const std::vector<Touch> none;
    const auto found = objects_.find(path);
    return found == objects_.end() ? none : found->second.touches;
}

void TouchLog::Drop() {
    objects_.erase(order_.front());
    order_.pop_front();
}

void TouchLog::Expire(Nanoseconds now) {
    while (!order_.empty() && Of(order_.front()).back().last + kKept < now) Drop();
}

void TouchLog::Clear() {
    objects_.clear();
    order_.clear();
}

}  // namespace Sentry
