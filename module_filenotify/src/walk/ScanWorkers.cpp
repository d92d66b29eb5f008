// Owns: the second thread of a large walk.
// Must not own: the scans (InitialScan) or the tree (WatchedTree), which it does not access.
// Threads: RunHelper on the second thread, the rest on the task's.
// Ownership passes: from Begin to Finish, the thread that took a scan's number uses that scan.

#include "walk/ScanWorkers.h"

#include <chrono>
#include <system_error>

namespace Engine::FileNotify {

namespace {

constexpr std::chrono::milliseconds kDrainInterval{2};

}  // namespace

ScanWorkers::ScanWorkers(InotifyDescriptor& inotify, std::function<void()> drain_events)
    : inotify_(inotify), drain_events_(std::move(drain_events)) {}

void ScanWorkers::Begin(std::vector<DirectoryScan>& scans, std::size_t count) {
    const std::lock_guard lock(mutex_);
    scans_ = &scans;
    count_ = count;
    next_ = 0;
    helper_wanted_ = helper_.joinable();
    if (helper_wanted_) changed_.notify_all();
}

void ScanWorkers::Finish() {
    RunScans(drain_events_);
    std::unique_lock lock(mutex_);
    helper_wanted_ = false;
    while (helper_busy_) {
        if (changed_.wait_for(lock, kDrainInterval) == std::cv_status::no_timeout) continue;
        lock.unlock();
        drain_events_();
        lock.lock();
    }
}

void ScanWorkers::RunScans(const std::function<void()>& drain_events) noexcept {
    for (std::size_t at; (at = next_.fetch_add(1)) < count_;)
        (*scans_)[at].Run(inotify_, drain_events);
}

void ScanWorkers::StartHelper() {
    if (helper_.joinable() || std::thread::hardware_concurrency() < 2) return;
    try {
        helper_ = std::thread([this] { RunHelper(); });
    } catch (const std::system_error&) {
        // No thread available: the walk only takes longer.
    }
}

void ScanWorkers::RunHelper() noexcept {
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return helper_wanted_ || ending_; });
        if (ending_) return;
        helper_wanted_ = false;
        helper_busy_ = true;
        lock.unlock();
        RunScans({});
        lock.lock();
        helper_busy_ = false;
        changed_.notify_all();
    }
}

void ScanWorkers::StopHelper() {
    if (!helper_.joinable()) return;
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        changed_.notify_all();
    }
    helper_.join();
    ending_ = false;
}

}  // namespace Engine::FileNotify
