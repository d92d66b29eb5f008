#include "notify/Pacer.h"

#include <algorithm>
#include <utility>

namespace Notify {

namespace {

constexpr long long kHour = 3600;

}  // namespace

bool Pacer::Add(long long raised_ms, long long now_ms, long long now_s) {
    const bool is_limited = IsLimited(now_s);
    const bool is_late = raised_ms - first_raised_ms_ >= pacing_.longest_ms;
    const bool is_full = pacing_.most > 0 && count_ >= pacing_.most;
    const bool is_over = !is_limited && (is_full || (!is_digest_ && is_late));
    if (count_ > 0 && (is_closed_ || is_over)) {
        is_closed_ = true;
        return false;
    }
    AddAgain(raised_ms, now_ms);
    is_digest_ = is_digest_ || is_limited;
    return true;
}

void Pacer::AddAgain(long long raised_ms, long long now_ms) {
    if (count_++ == 0) {
        first_raised_ms_ = raised_ms;
        first_ms_ = now_ms;
    }
    last_ms_ = now_ms;
}

bool Pacer::IsDue(long long now_ms, long long now_s) const {
    if (count_ == 0 || IsLimited(now_s)) return false;
    return is_closed_ || is_digest_ || now_ms - last_ms_ >= pacing_.settle_ms ||
           now_ms - first_ms_ >= pacing_.longest_ms;
}

bool Pacer::IsLimited(long long now_s) const {
    if (pacing_.most_per_hour <= 0 || times_.empty()) return false;
    const auto recent = std::count_if(times_.begin(), times_.end(), [&](long long time) {
        return time > now_s - kHour && time <= now_s;
    });
    // A time in the future is of a clock that was set back.
    const long long since_last = now_s - times_.back();
    return recent >= pacing_.most_per_hour && since_last >= 0 && since_last < pacing_.digest_s;
}

void Pacer::Delivered(long long now_s) {
    count_ = 0;
    is_closed_ = false;
    is_digest_ = false;
    if (pacing_.most_per_hour <= 0) return;
    times_.push_back(now_s);
    while (times_.size() > static_cast<std::size_t>(pacing_.most_per_hour)) times_.pop_front();
}

}  // namespace Notify
