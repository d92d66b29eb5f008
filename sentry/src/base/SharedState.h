#pragma once

#include <atomic>
#include <memory>

namespace Sentry {

/// What the guard tells its watchdog, in memory that both processes map. Lock-free, so a guard that
/// is killed leaves nothing locked.
struct SharedState {
    /// The kernel asks the guard before opens, so the watchdog must probe it.
    std::atomic<bool> is_armed{false};
    /// The guard must answer a probe within this time.
    std::atomic<int> answer_ms{50};

    struct Unmap {
        void operator()(SharedState* state) const;
    };
    using Mapped = std::unique_ptr<SharedState, Unmap>;

    /// Shared with processes that are forked later. Null on failure (errno).
    static Mapped Map();
};

}  // namespace Sentry
