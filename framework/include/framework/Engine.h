#pragma once

#include <Poco/Util/Application.h>
#include <framework/PolicyOutcome.h>
#include <framework/QueryRegistry.h>
#include <framework/TaskStatus.h>

#include <atomic>
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
/// There is one per process (Poco::Util::Application::instance()). One framework thread runs module
/// Init and UnInit, policy callbacks and tasklets, one at a time. Start and Stop are for the thread
/// that made the engine; everything else for any thread.
class Engine : public Poco::Util::Application {
  public:
    Engine();
    ~Engine() override;
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// The process's engine; throws Poco::NullPointerException when there is none.
    static Engine& Instance();

    /// Starts the framework thread. Tests may use tasks and policies from here on.
    void Start();

    /// Ends what would hold Stop up: external commands of policies and tasklets are interrupted
    /// from now on, and those of tasks that a policy waits for. For who has to wait for a policy
    /// before Stop. May be called twice; any thread.
    void BeginStop();
    bool IsStopping() const { return stopping_; }

    /// Begins to stop if that is still to be done, and stops in order: modules uninitialised in
    /// reverse, remaining tasks unregistered, thread ended. May be called twice.
    void Stop();

    /// Loads module/lib<name>.so of the installation path, enters it through CreateModule and
    /// initialises it. False with `error` when the file, the symbol or the object is missing, the
    /// factory throws, or Init fails; the agent goes on without the module.
    bool LoadModule(const std::string& name, std::string& error);

    /// Takes a module that is linked in, as tests do, and initialises it.
    bool AddModule(std::unique_ptr<Module> module, std::string& error);

    /// Starts the tasks that were registered deferred; from now on such start at once. For the
    /// agent, when it has started all its modules.
    void StartDeferredTasks();

    /// Names of the initialised modules, in order.
    std::vector<std::string> ModuleNames() const;

    /// The registered task of that id, or null. Borrowed: valid until its module unregisters it;
    /// use PostMessage where that can happen meanwhile.
    Task* FindTask(const std::string& id) const;

    /// SendAgileMsg to the task of that id, safe against its unregistration; false when there is
    /// none or it refuses: the message then stays the caller's.
    bool PostMessage(const std::string& task_id, Message* msg);

    /// Offers the policy to the callbacks, in the order of their registration, until one sets the
    /// handled flag, and waits for the outcome. Not from the framework thread.
    PolicyOutcome ApplyPolicy(const std::string& feature, const std::string& policy_json);

    /// Runs the tasklet of that id and waits for its result. Not from the framework thread.
    TaskletOutcome InvokeTasklet(const std::string& id, const std::string& request);

    /// Runs `job` on the framework thread and waits for it. What it throws is thrown here;
    /// Poco::IllegalStateException before Start and after Stop. Not from a task's thread, and so
    /// for policies and tasklets: the framework thread waits for tasks.
    void RunOnFrameworkThread(const std::function<void()>& job);

    std::vector<TaskStatus> TaskStatuses() const;
    QueryRegistry& Queries() { return queries_; }

  protected:
    friend class Module;
    friend class Task;
    TaskRegistry& Tasks() { return *tasks_; }
    CallbackRegistry& Callbacks() { return *callbacks_; }

  private:
    std::atomic<bool> stopping_{false};
    QueryRegistry queries_;
    std::unique_ptr<TaskRegistry> tasks_;
    std::unique_ptr<CallbackRegistry> callbacks_;
    std::unique_ptr<FrameworkThread> thread_;
    std::unique_ptr<ModuleLoader> loader_;
    std::unique_ptr<StallMonitor> stall_monitor_;
};

}  // namespace Framework
