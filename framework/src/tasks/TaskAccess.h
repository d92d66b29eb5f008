#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace Framework {

/// Who is inside a task from other threads, and the task's handler lock. Shared by the task and by
/// whoever is inside, so that it outlives the task. Any thread.
///
/// Lock order: a thread may take further handler locks while it holds one (a handler that sends a
/// direct message). The tasks therefore form a line: feature tasks send to service tasks
/// (file-notify), and both to report tasks, whose handlers send to nobody. A thread that comes back
/// to a lock of its own is told so and never waits for itself.
class TaskAccess {
  public:
    using Deadline = std::chrono::steady_clock::time_point;
    enum class Locked { kYes, kBusy, kByCaller };

    void Open();      ///< queued messages are taken from now on
    void SetReady();  ///< Init is over: direct messages are taken too
    void Close();     ///< nobody enters any more, and who waits for Init gives up
    void WaitIdle();  ///< until everybody who entered has left
    bool IsOpen() const;

    bool Enter();
    void Leave();

    /// Waits for Init to be over; false when the task stops before or the time is up.
    bool WaitReady(Deadline deadline);

    Locked LockHandler(Deadline deadline);
    void UnlockHandler();

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
    bool ready_ = false;
    int inside_ = 0;
    std::thread::id handler_owner_;
};

/// Being inside a task: while it is held, the task cannot be unregistered to the end.
class TaskUse {
  public:
    TaskUse() = default;
    explicit TaskUse(std::shared_ptr<TaskAccess> access) : access_(std::move(access)) {
        if (!access_->Enter()) access_.reset();
    }
    TaskUse(TaskUse&&) = default;
    TaskUse& operator=(TaskUse&&) = delete;
    TaskUse(const TaskUse&) = delete;
    TaskUse& operator=(const TaskUse&) = delete;
    ~TaskUse() {
        if (access_) access_->Leave();
    }

    explicit operator bool() const { return access_ != nullptr; }
    TaskAccess* operator->() const { return access_.get(); }
    TaskAccess& operator*() const { return *access_; }

  private:
    std::shared_ptr<TaskAccess> access_;
};

/// Releases the handler lock, which is held already.
class HandlerLockGuard {
  public:
    explicit HandlerLockGuard(TaskAccess& access) : access_(access) {}
    HandlerLockGuard(const HandlerLockGuard&) = delete;
    HandlerLockGuard& operator=(const HandlerLockGuard&) = delete;
    ~HandlerLockGuard() { access_.UnlockHandler(); }

  private:
    TaskAccess& access_;
};

}  // namespace Framework
