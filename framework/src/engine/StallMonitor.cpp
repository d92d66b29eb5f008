// Owns the housekeeping thread. Must not judge a pass (PassMonitor does). Its thread runs from
// construction to destruction.
#include "engine/StallMonitor.h"

#include <pthread.h>

#include <chrono>

#include "tasks/TaskRegistry.h"

namespace Framework {

namespace {

constexpr std::chrono::seconds kInterval{1};

}  // namespace

StallMonitor::StallMonitor(const TaskRegistry& tasks)
    : tasks_(tasks), thread_([this] { Loop(); }) {}

StallMonitor::~StallMonitor() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ending_ = true;
        changed_.notify_all();
    }
    thread_.join();
}

void StallMonitor::Loop() {
    ::pthread_setname_np(::pthread_self(), "stall_watch");
    std::unique_lock<std::mutex> lock(mutex_);
    while (!changed_.wait_for(lock, kInterval, [this] { return ending_; })) {
        lock.unlock();
        tasks_.ReportStalls();
        lock.lock();
    }
}

}  // namespace Framework
