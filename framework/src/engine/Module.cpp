// A module's face to the framework. Owns the module's gate; the callbacks and tasks that it
// registers are the registries'. Runs on the framework thread.
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

/// While the agent stops nothing is worth a wait; not zero, as the wait repeats.
constexpr std::chrono::milliseconds kGraceAtStop{100};

std::chrono::milliseconds Grace() {
    const std::chrono::milliseconds grace = ConfigManager::GetInstance().PolicyGrace();
    return Engine::Instance().IsStopping() ? std::min(grace, kGraceAtStop) : grace;
}

}  // namespace

/// Holds a gate alone while it lives; the module's tasks are brought out of their passes for it.
class AloneHold {
  public:
    AloneHold(Module& module, const TaskRegistry& tasks) : module_(module), tasks_(tasks) {
        Take();
        current = this;
    }
    ~AloneHold() {
        current = nullptr;
        Release();
    }
    AloneHold(const AloneHold&) = delete;
    AloneHold& operator=(const AloneHold&) = delete;

    void Take() {
        module_.Gate().LockAlone(
            Grace(), [this] { ForTasks(&TaskRunner::Nudge); },
            [this] { ForTasks(&TaskRunner::InterruptForPolicy); });
        ForTasks(&TaskRunner::EndInterruption);
    }
    void Release() { module_.Gate().UnlockAlone(); }

    /// The calling thread's, or null; null too while it has let the gate go.
    static inline thread_local AloneHold* current = nullptr;

  private:
    void ForTasks(void (TaskRunner::*call)()) const {
        tasks_.ForTasksOf(module_, [call](TaskRunner& runner) { (runner.*call)(); });
    }

    Module& module_;
    const TaskRegistry& tasks_;
};

OutsideGate::OutsideGate() : let_go_(std::exchange(AloneHold::current, nullptr)) {
    if (let_go_ != nullptr) let_go_->Release();
}

OutsideGate::~OutsideGate() {
    if (let_go_ == nullptr) return;
    let_go_->Take();
    AloneHold::current = let_go_;
}

Module::Module(const std::string& name) : name_(name), gate_(std::make_unique<ModuleGate>()) {}

Module::~Module() {
    // Normally nothing is left here. Without an engine there is nothing to take back.
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
    const AloneHold alone(*this, engine.Tasks());
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
