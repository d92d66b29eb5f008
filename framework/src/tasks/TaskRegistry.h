#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/ThreadPool.h>
#include <framework/Task.h>
#include <framework/TaskStatus.h>

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

/// A registered task that is held back from being unregistered while the object lives; nothing is
/// held when `use` is false.
struct TaskHold {
    std::shared_ptr<TaskRunner> runner;
    TaskUse use;  ///< after `runner`, so that it is given up first
};

/// The registered tasks, in the order of their registration, and the pool of their threads. Owned
/// by the engine; any thread.
class TaskRegistry {
  public:
    /// Takes over the reference. False when a task of that id is registered, or no thread is left.
    bool Register(Module& module, Poco::AutoPtr<Task> task, bool deferred);

    /// Returns when the task's UnInit is over and its reference released. A task that asks for
    /// itself is only cancelled. No-op for unknown ids.
    void Unregister(const std::string& id);

    /// All tasks of `module`, or of all modules for null, the youngest first.
    void UnregisterAll(const Module* module);

    /// Not while another thread unregisters.
    void StartDeferred();

    /// Null when it is not registered, or stopping.
    Task* Find(const std::string& id) const;
    TaskHold Hold(const std::string& id) const;
    /// Waits until the task is there.
    TaskHold HoldUntil(const std::string& id, TaskAccess::Deadline deadline) const;

    void ForTasksOf(const Module& module, const std::function<void(TaskRunner&)>& call) const;
    void ReportStalls() const;

    /// Interrupts the commands of tasks that a policy waits for.
    void InterruptWanted() const;
    std::vector<TaskStatus> Statuses() const;

  private:
    using Runners = std::vector<std::shared_ptr<TaskRunner>>;

    std::shared_ptr<TaskRunner> FindRunner(const std::string& id) const;
    TaskHold TryHold(const std::string& id) const;
    void Discard(const std::shared_ptr<TaskRunner>& runner);

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    Runners runners_;
    Runners deferred_;
    Runners leaving_;  ///< still in runners_
    bool defer_ = true;
    Poco::ThreadPool pool_{"task", 1, 256};
};

}  // namespace Framework
