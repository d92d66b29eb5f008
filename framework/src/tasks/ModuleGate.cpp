// Owns the counts of a module's shared and exclusive locks. Must not interrupt tasks itself
// (Module passes the calls). Thread-safe; calls nothing with the lock held.
#include <framework/ModuleGate.h>

namespace Framework {

bool ModuleGate::LockShared(const std::atomic<bool>& give_up) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock,
                  [&] { return give_up || (!held_exclusively_ && waiting_exclusively_ == 0); });
    if (give_up) return false;
    ++shared_owners_;
    return true;
}

void ModuleGate::UnlockShared() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --shared_owners_;
    changed_.notify_all();
}

void ModuleGate::WakeWaiting() {
    const std::lock_guard<std::mutex> lock(mutex_);
    changed_.notify_all();
}

void ModuleGate::LockExclusive(std::chrono::milliseconds grace,
                               const std::function<void()>& wake_tasks,
                               const std::function<void()>& interrupt) {
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiting_exclusively_;
    const auto call_unlocked = [&](const std::function<void()>& call) {
        if (shared_owners_ == 0) return;
        lock.unlock();
        call();
        lock.lock();
    };
    call_unlocked(wake_tasks);
    const auto is_free = [this] { return shared_owners_ == 0 && !held_exclusively_; };
    while (!changed_.wait_for(lock, grace, is_free)) call_unlocked(interrupt);
    --waiting_exclusively_;
    held_exclusively_ = true;
}

void ModuleGate::UnlockExclusive() {
    const std::lock_guard<std::mutex> lock(mutex_);
    held_exclusively_ = false;
    changed_.notify_all();
}

bool ModuleGate::HasExclusiveWaiter() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return waiting_exclusively_ > 0;
}

}  // namespace Framework
