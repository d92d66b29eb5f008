#include "attack/AttackRun.h"

#include <poll.h>
#include <time.h>

namespace Demo {
namespace {

using Clock = std::chrono::steady_clock;

/// Short compared with the measured times, but long enough to leave the processor to the agent.
constexpr long kPollNanoseconds = 200000;

/// Longer than one restore: an agent whose counters do not change for this time is idle.
constexpr int kIdleMs = 120;

void Pause() {
    const struct timespec pause { 0, kPollNanoseconds };
    ::nanosleep(&pause, nullptr);
}

double MillisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

}  // namespace

AttackResult AttackRun::Run(const Attack& attack) {
    AttackResult result;
    result.name = attack.name;
    result.path = attack.path;
    WaitUntilIdle();
    const TreeState before = TakeState(attack.path);
    feed_.SkipSeen();
    const auto start = Clock::now();
    result.failure = attack.run();
    if (!result.failure.empty()) return result;
    result.failure = WaitUntilAs(before, attack.path);
    result.undone_ms = MillisecondsSince(start);
    result.undone = result.failure.empty();
    const auto names_it = [&](const std::string& path) {
        return path == attack.path || path.rfind(attack.path + "/", 0) == 0;
    };
    result.alarm = feed_.WaitFor(names_it, deadline_);
    if (result.undone && !result.alarm) result.failure = "no alarm names " + attack.path;
    return result;
}

void AttackRun::WaitUntilIdle() const {
    const auto end = Clock::now() + deadline_;
    Json::Value counters;
    std::string error;
    while (Clock::now() < end) {
        Json::Value status;
        if (!agent_.Get("/v1/status", deadline_, status, error)) return;
        if (status["filenotify"]["pending_events"] == 0 && status["counters"] == counters) return;
        counters = status["counters"];
        ::poll(nullptr, 0, kIdleMs);
    }
}

std::string AttackRun::WaitUntilAs(const TreeState& before, const std::string& path) const {
    const auto end = Clock::now() + deadline_;
    while (true) {
        std::string difference = FindDifference(before, path);
        if (difference.empty() || Clock::now() > end) return difference;
        Pause();
    }
}

}  // namespace Demo
