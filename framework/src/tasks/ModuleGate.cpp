#include <framework/ModuleGate.h>

namespace Framework {

bool ModuleGate::LockShared(const std::atomic<bool>& give_up) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return give_up || (!held_alone_ && waiting_alone_ == 0); });
    if (give_up) return false;
    ++shared_holders_;
    return true;
}

void ModuleGate::UnlockShared() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --shared_holders_;
    changed_.notify_all();
}

void ModuleGate::WakeWaiting() {
    const std::lock_guard<std::mutex> lock(mutex_);
    changed_.notify_all();
}

void ModuleGate::LockAlone(std::chrono::milliseconds grace, const std::function<void()>& nudge,
                           const std::function<void()>& interrupt) {
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiting_alone_;
    const auto call_unlocked = [&](const std::function<void()>& call) {
        if (shared_holders_ == 0) return;
        lock.unlock();
        call();
        lock.lock();
    };
    call_unlocked(nudge);
    const auto is_free = [this] { return shared_holders_ == 0 && !held_alone_; };
    while (!changed_.wait_for(lock, grace, is_free)) call_unlocked(interrupt);
    --waiting_alone_;
    held_alone_ = true;
}

void ModuleGate::UnlockAlone() {
    const std::lock_guard<std::mutex> lock(mutex_);
    held_alone_ = false;
    changed_.notify_all();
}

bool ModuleGate::IsWanted() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return waiting_alone_ > 0;
}

}  // namespace Framework
