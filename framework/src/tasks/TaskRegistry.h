#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/ThreadPool.h>
#include <framework/Task.h>
#include <framework/TaskStatus.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tasks/TaskAccess.h"
#include "tasks/TaskRunner.h"

namespace Framework {

class Module;

/// A registered task that cannot be unregistered while the object lives; empty when `pin` is false.
struct TaskHandle {
    std::shared_ptr<TaskRunner> runner;
    TaskPin pin;  ///< after `runner`, so that it is released first
};

/// The registered tasks in the order of registration, and their thread pool. Owned by the engine.
/// Thread-safe.
class TaskRegistry {
  public:
    /// Takes ownership of the reference. False when the id is registered or no thread is available.
    bool Register(Module& module, Poco::AutoPtr<Task> task, bool deferred);

    /// Blocks until the task's UnInit has ended and its reference is released. On the task's own
    /// thread it only cancels the task. Does nothing for unknown ids.
    void Unregister(const std::string& id);

    /// All tasks of `module`, or of every module for null, in reverse order of registration.
    void UnregisterAll(const Module* module);

    /// Must not run while another thread unregisters tasks.
    void StartDeferred();

    /// Null when the task is stopping or not registered.
    Task* Find(const std::string& id) const;
    TaskHandle Acquire(const std::string& id) const;
    /// Blocks until the task is registered or the deadline passes.
    TaskHandle AcquireUntil(const std::string& id, TaskAccess::Deadline deadline) const;

    void ForTasksOf(const Module& module, const std::function<void(TaskRunner&)>& call) const;
    void ReportStalls() const;

    /// The id of a task that has made no progress for `limit`; empty: none. Call on one thread.
    std::string FindStuck(std::chrono::milliseconds limit) const;

    /// Interrupts the commands of tasks that a policy waits for.
    void InterruptPolicyBlockers() const;
    std::vector<TaskStatus> Statuses() const;

  private:
    using Runners = std::vector<std::shared_ptr<TaskRunner>>;

    std::shared_ptr<TaskRunner> FindRunner(const std::string& id) const;
    TaskHandle TryAcquire(const std::string& id) const;
    void Discard(const std::shared_ptr<TaskRunner>& runner);

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    Runners runners_;
    Runners deferred_;
    Runners unregistering_;  ///< still in runners_
    bool defer_ = true;
    Poco::ThreadPool pool_{"task", 1, 256};
};

}  // namespace Framework
