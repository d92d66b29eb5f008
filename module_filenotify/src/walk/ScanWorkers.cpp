// Owns: the second thread of a large walk. Not: the scans (InitialScan), nor anything of the tree,
// which it never touches. Threads: RunHelper its own, the rest the task's. What was begun belongs
// to both, each scan to who has drawn its number, until Finish has returned.

#include "walk/ScanWorkers.h"

#include <chrono>
#include <system_error>

namespace Engine::FileNotify {

namespace {

constexpr std::chrono::milliseconds kReadEvery{2};

}  // namespace

ScanWorkers::ScanWorkers(InotifyDescriptor& inotify, std::function<void()> between)
    : inotify_(inotify), between_(std::move(between)) {}

void ScanWorkers::Begin(std::vector<DirectoryScan>& scans, std::size_t count) {
    const std::lock_guard lock(mutex_);
    scans_ = &scans;
    count_ = count;
    next_ = 0;
    helper_wanted_ = helper_.joinable();
    if (helper_wanted_) changed_.notify_all();
}

void ScanWorkers::Finish() {
    WorkOn(between_);
    std::unique_lock lock(mutex_);
    helper_wanted_ = false;
    while (helper_busy_) {
        if (changed_.wait_for(lock, kReadEvery) == std::cv_status::no_timeout) continue;
        lock.unlock();
        between_();
        lock.lock();
    }
}

void ScanWorkers::WorkOn(const std::function<void()>& between) noexcept {
    for (std::size_t at; (at = next_.fetch_add(1)) < count_;) (*scans_)[at].Run(inotify_, between);
}

void ScanWorkers::Reinforce() {
    if (helper_.joinable() || std::thread::hardware_concurrency() < 2) return;
    try {
        helper_ = std::thread([this] { RunHelper(); });
    } catch (const std::system_error&) {
        // Too many threads: it takes longer without.
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
        WorkOn({});
        lock.lock();
        helper_busy_ = false;
        changed_.notify_all();
    }
}

void ScanWorkers::Dismiss() {
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
