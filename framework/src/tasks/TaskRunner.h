#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Runnable.h>
#include <Poco/ThreadPool.h>
#include <framework/Module.h>
#include <framework/Task.h>
#include <sdk/time/CommandInterrupter.h>
#include <sdk/time/ThreadProgress.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "tasks/PassMonitor.h"
#include "tasks/TaskAccess.h"

namespace Framework {

/// Drives one registration of one task from Init to UnInit on a thread of the pool, and ends it.
/// Owned by TaskRegistry, and by the thread while that runs.
class TaskRunner : public Poco::Runnable, public std::enable_shared_from_this<TaskRunner> {
  public:
    /// Takes ownership of one reference of the task.
    TaskRunner(Module& module, Poco::AutoPtr<Task> task);

    /// Prepares the task for this registration; its queue accepts messages from here on.
    void Attach();

    /// Starts the thread; false when the pool is exhausted.
    bool Start(Poco::ThreadPool& pool);

    /// Cancels and joins the task and empties its queue. Call once.
    void Finish();

    /// Releases the reference; the task may be destroyed. Call after Finish, when nothing else can
    /// reach the runner.
    void Release() { task_ = nullptr; }

    void run() override;
    void RunTask();  ///< the body of Task::runTask

    // The two halves of Task::cancel. Thread-safe.
    void MarkStopping() { stopping_ = true; }
    void InterruptForStop();

    // For a waiting policy. Thread-safe.
    void Wake();
    void InterruptForPolicy();
    void EndInterruption();

    /// Begins the next pass now. Thread-safe.
    void RunSoon();
    /// That of `task`; null while it is not registered.
    static std::shared_ptr<TaskRunner> Of(const Task& task) { return task.Runner(); }

    /// True when the pass should end: the task is stopping, or a policy waits.
    bool ShouldYield() const;

    const std::string& Id() const { return id_; }
    const Module& Owner() const { return module_; }
    bool IsOwnThread() const { return thread_ == std::this_thread::get_id(); }
    void ReportStall();
    /// For one thread, the watchdog's.
    std::chrono::milliseconds SinceProgress() { return progress_.SinceProgress(); }
    TaskStatus Status() const;

    /// The task (null after Release), and a pin for it.
    Task* Target() { return task_.get(); }
    TaskPin Pin() const { return TaskPin(access_); }

  private:
    class SharedGateLock;
    using Clock = std::chrono::steady_clock;

    bool RunInit();
    void RunPasses();
    bool RunPass();
    void RunUnInit();
    bool WaitUntil(Clock::time_point next);
    void SetInterruptible(bool interruptible);
    std::chrono::seconds StallLimit() const;

    Module& module_;
    Poco::AutoPtr<Task> task_;
    const std::string id_;
    const std::shared_ptr<TaskAccess> access_;
    const std::chrono::milliseconds period_;
    PassMonitor monitor_;
    SDK::CommandInterrupter interrupter_;
    SDK::ThreadProgress progress_;
    std::atomic<bool> stopping_{false};
    std::atomic<std::thread::id> thread_;
    std::string last_failure_;  ///< the task's thread only

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool started_ = false;
    bool ended_ = false;
    bool is_wanted_ = false;      ///< the next pass is not to wait for its time
    bool interruptible_ = false;  ///< in Init or Run: its commands may be interrupted
};

}  // namespace Framework
