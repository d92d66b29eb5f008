#include "StallWatch.h"

#include <pthread.h>

#include <chrono>

#include "TaskRegistry.h"

namespace Framework {

namespace {

constexpr std::chrono::seconds kInterval{1};

}  // namespace

StallWatch::StallWatch(const TaskRegistry& tasks) : tasks_(tasks), thread_([this] { Loop(); }) {}

StallWatch::~StallWatch() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ending_ = true;
        changed_.notify_all();
    }
    thread_.join();
}

void StallWatch::Loop() {
    ::pthread_setname_np(::pthread_self(), "stall_watch");
    std::unique_lock<std::mutex> lock(mutex_);
    while (!changed_.wait_for(lock, kInterval, [this] { return ending_; })) {
        lock.unlock();
        tasks_.ReportStalls();
        lock.lock();
    }
}

}  // namespace Framework
