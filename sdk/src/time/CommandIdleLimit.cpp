#include "sdk/time/CommandIdleLimit.h"

#include <utility>

namespace SDK {

namespace {

thread_local std::chrono::milliseconds current_period{0};

}  // namespace

CommandIdleLimit::CommandIdleLimit(std::chrono::milliseconds period)
    : previous_(std::exchange(current_period, period)) {}

CommandIdleLimit::~CommandIdleLimit() {
    current_period = previous_;
}

std::chrono::milliseconds CommandIdleLimit::Current() {
    return current_period;
}

}  // namespace SDK
