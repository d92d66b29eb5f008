// Owns the count of threads inside a task and the owner of its handler lock. Must not call
// handlers (TaskMessaging.cpp and Task do). Thread-safe.
#include "tasks/TaskAccess.h"

namespace Framework {

void TaskAccess::Open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    ready_ = false;
}

void TaskAccess::SetReady() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ready_ = true;
    changed_.notify_all();
}

void TaskAccess::Close() {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_ = false;
    changed_.notify_all();
}

void TaskAccess::WaitIdle() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return inside_ == 0; });
}

bool TaskAccess::IsOpen() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return open_;
}

bool TaskAccess::Enter() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!open_) return false;
    ++inside_;
    return true;
}

void TaskAccess::Leave() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (--inside_ == 0) changed_.notify_all();
}

bool TaskAccess::WaitReady(Deadline deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_until(lock, deadline, [this] { return ready_ || !open_; });
    return ready_ && open_;
}

TaskAccess::Locked TaskAccess::LockHandler(Deadline deadline) {
    const std::thread::id nobody;
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(mutex_);
    if (handler_owner_ == self) return Locked::kByCaller;
    const auto is_free = [&] { return handler_owner_ == nobody; };
    if (!changed_.wait_until(lock, deadline, is_free)) return Locked::kBusy;
    handler_owner_ = self;
    return Locked::kYes;
}

void TaskAccess::UnlockHandler() {
    const std::lock_guard<std::mutex> lock(mutex_);
    handler_owner_ = std::thread::id();
    changed_.notify_all();
}

}  // namespace Framework
