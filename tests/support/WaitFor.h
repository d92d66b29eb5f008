#pragma once

#include <poll.h>

#include <chrono>
#include <functional>

namespace test {

constexpr int kPollIntervalMs = 2;

/// Polls `condition` until it is true or `deadline` has passed; its last result.
inline bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return condition();
        ::poll(nullptr, 0, kPollIntervalMs);
    }
    return true;
}

}  // namespace test
