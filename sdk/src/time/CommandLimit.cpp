#include "sdk/time/CommandLimit.h"

#include <utility>

namespace SDK {

namespace {

template <CommandLimitKind kind>
thread_local std::chrono::milliseconds current_period{0};

}  // namespace

template <CommandLimitKind kind>
CommandLimit<kind>::CommandLimit(std::chrono::milliseconds period)
    : previous_(std::exchange(current_period<kind>, period)) {}

template <CommandLimitKind kind>
CommandLimit<kind>::~CommandLimit() {
    current_period<kind> = previous_;
}

template <CommandLimitKind kind>
std::chrono::milliseconds CommandLimit<kind>::Current() {
    return current_period<kind>;
}

template class CommandLimit<CommandLimitKind::kTime>;
template class CommandLimit<CommandLimitKind::kIdle>;

}  // namespace SDK
