#pragma once

#include <Poco/Util/Application.h>
#include <framework/PolicyOutcome.h>
#include <framework/QueryRegistry.h>
#include <framework/TaskStatus.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Framework {

class CallbackRegistry;
class FrameworkThread;
class Message;
class Module;
class ModuleLoader;
class StallMonitor;
class Task;
class TaskRegistry;

/// The application object of the agent's process: modules, tasks, policies, tasklets, queries.
///
/// One per process (Poco::Util::Application::instance()). The framework thread runs module Init and
/// UnInit, policy callbacks and tasklets, one at a time. Call Start and Stop on the thread that
/// made the engine; everything else is thread-safe.
class Engine : public Poco::Util::Application {
  public:
    Engine();
    ~Engine() override;
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// The process's engine; throws Poco::NullPointerException when there is none.
    static Engine& Instance();

    /// Starts the framework thread. Tasks and policies work from here on.
    void Start();

    /// Prepares Stop: from now on it interrupts external commands of policies and tasklets, and of
    /// tasks that a policy waits for. For callers that must wait for a policy before Stop. Safe to
    /// call twice; thread-safe.
    void BeginStop();
    bool IsStopping() const { return stopping_; }

    /// Calls BeginStop and stops in order: uninitialises modules in reverse, unregisters remaining
    /// tasks, ends the thread. Safe to call twice.
    void Stop();

    /// Loads module/lib<name>.so of the installation path, creates the module with CreateModule and
    /// initialises it. False with `error` when the file, the symbol or the object is missing, the
    /// factory throws, or Init fails; the agent continues without the module.
    bool LoadModule(const std::string& name, std::string& error);

    /// Takes ownership of a module that is linked in, as in tests, and initialises it.
    bool AddModule(std::unique_ptr<Module> module, std::string& error);

    /// Starts all deferred tasks; later ones start at once. The agent calls it after the start of
    /// all modules.
    void StartDeferredTasks();

    /// Names of the initialised modules, in order.
    std::vector<std::string> ModuleNames() const;

    /// The registered task of that id, or null. Borrowed, valid until its module unregisters it;
    /// use PostMessage where that can happen meanwhile.
    Task* FindTask(const std::string& id) const;

    /// SendAgileMsg to the task of that id, safe while it is being unregistered. False when there
    /// is no such task or it refuses; the caller then keeps the message.
    bool PostMessage(const std::string& task_id, Message* msg);

    /// Offers the policy to the callbacks in the order of registration until one sets the handled
    /// flag. Blocks until the outcome is known. Not from the framework thread.
    PolicyOutcome ApplyPolicy(const std::string& feature, const std::string& policy_json,
                              PolicyOrigin origin = PolicyOrigin::kOperator);

    /// The origin of the policy that is being applied. Framework thread, within a policy callback.
    PolicyOrigin OriginOfPolicy() const { return policy_origin_; }

    /// Runs the tasklet of that id and blocks until its result. Not from the framework thread.
    TaskletOutcome InvokeTasklet(const std::string& id, const std::string& request);

    /// Runs `job` on the framework thread and blocks until it ends; rethrows its exception.
    /// Poco::IllegalStateException before Start and after Stop. Must not be called on a task's
    /// thread, nor must policies and tasklets: the framework thread waits for tasks.
    void RunOnFrameworkThread(const std::function<void()>& job);

    std::vector<TaskStatus> TaskStatuses() const;

    /// Names a thread that has work and has made no progress for `limit`: the framework thread, or
    /// a task. Empty: there is none. Sees a thread as it was at the calls before, so call it
    /// several times within `limit`, on one thread. Never blocks for long.
    std::string FindStuckThread(std::chrono::milliseconds limit);

    QueryRegistry& Queries() { return queries_; }

  protected:
    friend class Module;
    friend class Task;
    TaskRegistry& Tasks() { return *tasks_; }
    CallbackRegistry& Callbacks() { return *callbacks_; }

  private:
    std::atomic<bool> stopping_{false};
    PolicyOrigin policy_origin_ = PolicyOrigin::kOperator;  ///< framework thread
    QueryRegistry queries_;
    std::unique_ptr<TaskRegistry> tasks_;
    std::unique_ptr<CallbackRegistry> callbacks_;
    std::unique_ptr<FrameworkThread> thread_;
    std::unique_ptr<ModuleLoader> loader_;
    std::unique_ptr<StallMonitor> stall_monitor_;
};

}  // namespace Framework
