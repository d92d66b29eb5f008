// Owns the parts of the framework; each part has its own rules. Must not run module code itself
// (FrameworkThread does). Start and Stop run on the thread that made the engine.
#include <Poco/Exception.h>
#include <framework/Engine.h>
#include <framework/FeaturePolicy.h>
#include <framework/Module.h>

#include "base/ExceptionBarrier.h"
#include "engine/FrameworkThread.h"
#include "engine/ModuleLoader.h"
#include "engine/StallMonitor.h"
#include "policies/CallbackRegistry.h"
#include "tasks/TaskRegistry.h"

namespace Framework {

Engine::Engine()
    : tasks_(std::make_unique<TaskRegistry>()),
      callbacks_(std::make_unique<CallbackRegistry>()),
      thread_(std::make_unique<FrameworkThread>()),
      loader_(std::make_unique<ModuleLoader>(*callbacks_, *tasks_)) {}

Engine::~Engine() {
    Stop();
}

Engine& Engine::Instance() {
    auto* const engine = dynamic_cast<Engine*>(&Poco::Util::Application::instance());
    if (engine == nullptr) throw Poco::NullPointerException("the application is no engine");
    return *engine;
}

void Engine::Start() {
    if (stall_monitor_) return;
    stopping_ = false;
    thread_->Start();
    stall_monitor_ = std::make_unique<StallMonitor>(*tasks_);
}

void Engine::BeginStop() {
    stopping_ = true;
    thread_->InterruptCommands();
    tasks_->InterruptPolicyBlockers();
}

void Engine::Stop() {
    if (!stall_monitor_) return;
    BeginStop();
    thread_->Run([this] {
        loader_->RemoveAll();
        tasks_->UnregisterAll(nullptr);
        FeaturePolicy::DeleteAll();
    });
    thread_->Stop();
    stall_monitor_.reset();
}

bool Engine::LoadModule(const std::string& name, std::string& error) {
    bool loaded = false;
    const std::string thrown =
        RunGuarded([&] { RunOnFrameworkThread([&] { loaded = loader_->Load(name, error); }); });
    if (!thrown.empty()) error = thrown;
    return loaded;
}

bool Engine::AddModule(std::unique_ptr<Module> module, std::string& error) {
    bool added = false;
    const std::string thrown = RunGuarded(
        [&] { RunOnFrameworkThread([&] { added = loader_->Add(std::move(module), error); }); });
    if (!thrown.empty()) error = thrown;
    return added;
}

void Engine::StartDeferredTasks() {
    RunOnFrameworkThread([this] { tasks_->StartDeferred(); });
}

std::vector<std::string> Engine::ModuleNames() const {
    return loader_->Names();
}

Task* Engine::FindTask(const std::string& id) const {
    return tasks_->Find(id);
}

bool Engine::PostMessage(const std::string& task_id, Message* msg) {
    const TaskHandle handle = tasks_->Acquire(task_id);
    return handle.pin && Task::SendAgileMsg(handle.runner->Target(), msg);
}

PolicyOutcome Engine::ApplyPolicy(const std::string& feature, const std::string& policy_json,
                                  PolicyOrigin origin) {
    PolicyOutcome outcome;
    const std::string thrown = RunGuarded([&] {
        RunOnFrameworkThread([&] {
            policy_origin_ = origin;
            outcome = callbacks_->Dispatch(feature, policy_json);
        });
    });
    if (!thrown.empty()) outcome.exception = thrown;
    return outcome;
}

TaskletOutcome Engine::InvokeTasklet(const std::string& id, const std::string& request) {
    TaskletOutcome outcome;
    const std::string thrown = RunGuarded([&] {
        std::future<TaskletOutcome> result;
        RunOnFrameworkThread([&] { result = callbacks_->Invoke(id, request); });
        if (result.valid()) outcome = result.get();
    });
    if (!thrown.empty()) outcome.exception = thrown;
    return outcome;
}

void Engine::RunOnFrameworkThread(const std::function<void()>& job) {
    thread_->Run(job);
}

std::string Engine::FindStuckThread(std::chrono::milliseconds limit) {
    const bool is_thread_stuck = thread_->SinceProgress() >= limit;
    const std::string task = tasks_->FindStuck(limit);
    // The framework thread may wait for the task.
    if (!task.empty()) return "task " + task;
    return is_thread_stuck ? "the framework thread" : "";
}

std::vector<TaskStatus> Engine::TaskStatuses() const {
    return tasks_->Statuses();
}

}  // namespace Framework
