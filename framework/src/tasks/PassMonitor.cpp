// Owns the times and counts of a registration's passes. Must not log or stop a pass (TaskRunner
// does). Thread-safe.
#include "tasks/PassMonitor.h"

namespace Framework {

void PassMonitor::InitEnded(bool ok) {
    const std::lock_guard<std::mutex> lock(mutex_);
    started_ = true;
    init_failed_ = !ok;
}

void PassMonitor::PassBegins(std::chrono::seconds stall_limit) {
    const std::lock_guard<std::mutex> lock(mutex_);
    in_pass_ = true;
    stall_limit_ = stall_limit;
    pass_began_ = Clock::now();
}

void PassMonitor::PassEnds() {
    const std::lock_guard<std::mutex> lock(mutex_);
    in_pass_ = false;
    stalled_ = false;
    ++passes_;
    last_pass_ms_ = std::chrono::duration<double, std::milli>(Clock::now() - pass_began_).count();
}

bool PassMonitor::HasNewlyStalled() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!in_pass_ || stalled_ || stall_limit_.count() < 0) return false;
    stalled_ = Clock::now() - pass_began_ > stall_limit_;
    return stalled_;
}

void PassMonitor::Fill(TaskStatus& status) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    status.state = !started_ ? "starting" : stalled_ ? "stalled" : "running";
    status.passes = passes_;
    status.last_pass_ms = last_pass_ms_;
    status.init_failed = init_failed_;
}

}  // namespace Framework
