#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace test {

/// Asks `condition` again and again until it is true or `deadline` has passed; its last answer.
inline bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return condition();
        std::this_thread::yield();
    }
    return true;
}

}  // namespace test
