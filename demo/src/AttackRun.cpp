#include "AttackRun.h"

#include <time.h>

namespace Demo {
namespace {

using Clock = std::chrono::steady_clock;

/// Short beside the times that are measured, long enough to leave the processor to those who work.
constexpr long kPollNanoseconds = 200000;

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
    const TreeState before = TakeState(attack.path);
    feed_.Mark();
    const auto start = Clock::now();
    result.failure = attack.act();
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

std::string AttackRun::WaitUntilAs(const TreeState& before, const std::string& path) const {
    const auto end = Clock::now() + deadline_;
    while (true) {
        std::string difference = FindDifference(before, path);
        if (difference.empty() || Clock::now() > end) return difference;
        Pause();
    }
}

}  // namespace Demo
