#include <fleet/Backoff.h>

#include <algorithm>

namespace Fleet {

Backoff::Backoff(std::int64_t first_ms, std::int64_t most_ms)
    : first_ms_(first_ms), most_ms_(most_ms), base_ms_(first_ms), random_(std::random_device()()) {
    Choose();
}

void Backoff::Ended(bool lasted) {
    base_ms_ = lasted ? first_ms_ : std::min(base_ms_ * 2, most_ms_);
    Choose();
}

void Backoff::Choose() {
    wait_ms_ = std::uniform_int_distribution<std::int64_t>(base_ms_ / 2, base_ms_ * 3 / 2)(random_);
}

}  // namespace Fleet
