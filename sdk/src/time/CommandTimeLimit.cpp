#include "sdk/time/CommandTimeLimit.h"

#include <utility>

namespace SDK {

namespace {

thread_local std::chrono::milliseconds current_period{0};

}  // namespace

CommandTimeLimit::CommandTimeLimit(std::chrono::milliseconds period)
    : previous_(std::exchange(current_period, period)) {}

CommandTimeLimit::~CommandTimeLimit() {
    current_period = previous_;
}

std::chrono::milliseconds CommandTimeLimit::Current() {
    return current_period;
}

}  // namespace SDK
