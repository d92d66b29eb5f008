#include "sdk/time/TimeUtils.h"

#include <array>
#include <ctime>

namespace SDK {

namespace {

timespec Now(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return now;
}

}  // namespace

std::int64_t TimeUtils::GetCurrentTimestampS() {
    return Now(CLOCK_REALTIME).tv_sec;
}

std::int64_t TimeUtils::GetMonotonicMs() {
    const timespec now = Now(CLOCK_MONOTONIC);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

unsigned long TimeUtils::GetCurrentSystemTickUsed() {
    const timespec now = Now(CLOCK_THREAD_CPUTIME_ID);
    return static_cast<unsigned long>(now.tv_sec) * 1000000UL +
           static_cast<unsigned long>(now.tv_nsec / 1000);
}

std::string TimeUtils::FormatLocalTime(std::int64_t seconds_since_epoch) {
    const std::time_t seconds = seconds_since_epoch;
    std::tm local{};
    if (::localtime_r(&seconds, &local) == nullptr) return {};
    std::array<char, 64> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S%z", &local)};
}

}  // namespace SDK
