// Connects a module with the framework. Owns the module's gate; its callbacks and tasks belong to
// the registries. Runs on the framework thread.
#include <framework/ConfigManager.h>
#include <framework/Engine.h>
#include <framework/Module.h>
#include <framework/ModuleGate.h>
#include <framework/OutsideGate.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "base/ExceptionBarrier.h"
#include "policies/CallbackRegistry.h"
#include "tasks/TaskRegistry.h"

namespace Framework {

namespace {

/// A short grace period while the agent stops; not zero, since the wait repeats.
constexpr std::chrono::milliseconds kGraceAtStop{100};

std::chrono::milliseconds Grace() {
    const std::chrono::milliseconds grace = ConfigManager::GetInstance().PolicyGrace();
    return Engine::Instance().IsStopping() ? std::min(grace, kGraceAtStop) : grace;
}

}  // namespace

/// Holds a module's gate exclusively while it lives. Tasks are asked to end their passes first.
class ExclusiveGateLock {
  public:
    ExclusiveGateLock(Module& module, const TaskRegistry& tasks) : module_(module), tasks_(tasks) {
        Take();
        current = this;
    }
    ~ExclusiveGateLock() {
        current = nullptr;
        Release();
    }
    ExclusiveGateLock(const ExclusiveGateLock&) = delete;
    ExclusiveGateLock& operator=(const ExclusiveGateLock&) = delete;

    void Take() {
        module_.Gate().LockExclusive(
            Grace(), [this] { ForTasks(&TaskRunner::Wake); },
            [this] { ForTasks(&TaskRunner::InterruptForPolicy); });
        ForTasks(&TaskRunner::EndInterruption);
    }
    void Release() { module_.Gate().UnlockExclusive(); }

    /// The calling thread's lock; null when it has none or has released it for a while.
    static inline thread_local ExclusiveGateLock* current = nullptr;

  private:
    void ForTasks(void (TaskRunner::*call)()) const {
        tasks_.ForTasksOf(module_, [call](TaskRunner& runner) { (runner.*call)(); });
    }

    Module& module_;
    const TaskRegistry& tasks_;
};

OutsideGate::OutsideGate() : released_(std::exchange(ExclusiveGateLock::current, nullptr)) {
    if (released_ != nullptr) released_->Release();
}

OutsideGate::~OutsideGate() {
    if (released_ == nullptr) return;
    released_->Take();
    ExclusiveGateLock::current = released_;
}

Module::Module(const std::string& name) : name_(name), gate_(std::make_unique<ModuleGate>()) {}

Module::~Module() {
    // Usually nothing is registered any more. Without an engine nothing needs to be removed.
    RunGuarded([this] {
        Engine& engine = Engine::Instance();
        engine.Callbacks().RemoveAll(*this);
        engine.Tasks().UnregisterAll(this);
    });
}

const char* Module::name() const {
    return name_.c_str();
}

void Module::initialize(Poco::Util::Application&) {
    if (!Init()) {
        SDK_LOG(RootLogger(), PRIO_ERROR, "module %s failed to initialise.", name_);
    }
}

void Module::uninitialize() {
    UnInit();
}

bool Module::Init() {
    return true;
}

void Module::UnInit() {}

int Module::RefreshPolicy(const std::string& callback_id, const std::string& feature,
                          const std::string& policy_json, Policy*& policy) {
    Engine& engine = Engine::Instance();
    const auto callback = engine.Callbacks().FindPolicy(*this, callback_id);
    if (!callback) return 0;
    const ExclusiveGateLock alone(*this, engine.Tasks());
    return callback->invoke(feature, policy_json, policy);
}

void Module::RejectPolicy(const std::string& reason) {
    if (policy_rejection_.empty()) policy_rejection_ = reason;
}

std::string Module::TakePolicyRejection() {
    return std::exchange(policy_rejection_, std::string());
}

bool Module::RegisterPolicyCallback(const std::string& id, AbstractPolicyCallback* callback) {
    std::unique_ptr<AbstractPolicyCallback> owned(callback);
    return Engine::Instance().Callbacks().AddPolicy(*this, id, std::move(owned));
}

bool Module::RegisterTaskletCallback(const std::string& id, AbstractTaskletCallback* callback) {
    std::unique_ptr<AbstractTaskletCallback> owned(callback);
    return Engine::Instance().Callbacks().AddTasklet(*this, id, std::move(owned));
}

void Module::UnRegisterPolicyCallback(const std::string& id) {
    Engine::Instance().Callbacks().Remove(*this, id);
}

bool Module::RegisterTask(Task* task, bool deferred) {
    const Poco::AutoPtr<Task> owned(task);
    if (owned.isNull()) return false;
    return Engine::Instance().Tasks().Register(*this, owned, deferred);
}

void Module::UnRegisterTask(const std::string& task_id) {
    Engine::Instance().Tasks().Unregister(task_id);
}

}  // namespace Framework
