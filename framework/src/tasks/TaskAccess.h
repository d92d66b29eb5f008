#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace Framework {

/// Counts the threads that use a task from outside, and has the task's handler lock. Shared
/// ownership, so that it outlives the task. Thread-safe.
///
/// Lock order: a handler may take further handler locks by sending a direct message. Tasks
/// therefore send in one direction: feature tasks to service tasks (file-notify), both to report
/// tasks, whose handlers send nothing. A thread that meets its own lock gets kByCaller instead of a
/// deadlock.
class TaskAccess {
  public:
    using Deadline = std::chrono::steady_clock::time_point;
    enum class Locked { kYes, kBusy, kByCaller };

    void Open();      ///< accepts queued messages
    void SetReady();  ///< Init has ended: accepts direct messages too
    void Close();     ///< refuses further threads and ends waits for Init
    void WaitIdle();  ///< blocks until every thread has left
    bool IsOpen() const;

    bool Enter();
    void Leave();

    /// Blocks until Init has ended; false when the task stops or the deadline passes first.
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

/// Pins a task: it cannot be unregistered completely while the object lives.
class TaskPin {
  public:
    TaskPin() = default;
    explicit TaskPin(std::shared_ptr<TaskAccess> access) : access_(std::move(access)) {
        if (!access_->Enter()) access_.reset();
    }
    TaskPin(TaskPin&&) = default;
    TaskPin& operator=(TaskPin&&) = delete;
    TaskPin(const TaskPin&) = delete;
    TaskPin& operator=(const TaskPin&) = delete;
    ~TaskPin() {
        if (access_) access_->Leave();
    }

    explicit operator bool() const { return access_ != nullptr; }
    TaskAccess* operator->() const { return access_.get(); }
    TaskAccess& operator*() const { return *access_; }

  private:
    std::shared_ptr<TaskAccess> access_;
};

/// Releases a handler lock that the thread holds already.
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
