// Owns the registrations and the thread pool. TaskRunner drives each task. Register and Unregister
// usually run on the framework thread, the rest on any thread. Never waits for a task, callback or
// gate with the lock held.
#include "tasks/TaskRegistry.h"

#include <algorithm>

#include "base/ExceptionBarrier.h"

namespace Framework {

namespace {

void Erase(std::vector<std::shared_ptr<TaskRunner>>& runners, const TaskRunner* runner) {
    const auto is_it = [&](const std::shared_ptr<TaskRunner>& each) {
        return each.get() == runner;
    };
    runners.erase(std::remove_if(runners.begin(), runners.end(), is_it), runners.end());
}

}  // namespace

bool TaskRegistry::Register(Module& module, Poco::AutoPtr<Task> task, bool deferred) {
    const auto runner = std::make_shared<TaskRunner>(module, std::move(task));
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (FindRunner(runner->Id())) {
            SDK_LOG(RootLogger(), PRIO_ERROR, "Task(%s) is registered already.", runner->Id());
            return false;
        }
        runners_.push_back(runner);
        runner->Attach();
        deferred = deferred && defer_;
        if (deferred) deferred_.push_back(runner);
        changed_.notify_all();
    }
    if (deferred || runner->Start(pool_)) return true;
    Unregister(runner->Id());
    return false;
}

void TaskRegistry::StartDeferred() {
    Runners start;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        defer_ = false;
        start.swap(deferred_);
    }
    for (const auto& runner : start) {
        if (!runner->Start(pool_)) Unregister(runner->Id());
    }
}

void TaskRegistry::Unregister(const std::string& id) {
    std::shared_ptr<TaskRunner> runner;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        runner = FindRunner(id);
        if (!runner) return;
        if (runner->IsOwnThread()) {
            SDK_LOG(RootLogger(), PRIO_ERROR, "Task(%s) cannot unregister itself.", id);
            lock.unlock();
            runner->Target()->cancel();
            return;
        }
        const auto same_call = std::find(unregistering_.begin(), unregistering_.end(), runner);
        if (same_call != unregistering_.end()) {
            changed_.wait(lock, [&] { return FindRunner(id) != runner; });
            return;
        }
        unregistering_.push_back(runner);
        Erase(deferred_, runner.get());
    }
    Discard(runner);
}

void TaskRegistry::UnregisterAll(const Module* module) {
    std::vector<std::string> ids;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = runners_.rbegin(); it != runners_.rend(); ++it) {
            if (module == nullptr || &(*it)->Owner() == module) ids.push_back((*it)->Id());
        }
    }
    for (const std::string& id : ids) Unregister(id);
}

void TaskRegistry::Discard(const std::shared_ptr<TaskRunner>& runner) {
    runner->Finish();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        Erase(runners_, runner.get());
        Erase(unregistering_, runner.get());
        changed_.notify_all();
    }
    runner->Release();
}

Task* TaskRegistry::Find(const std::string& id) const {
    const TaskHandle handle = Acquire(id);
    return handle.pin ? handle.runner->Target() : nullptr;
}

TaskHandle TaskRegistry::Acquire(const std::string& id) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return TryAcquire(id);
}

TaskHandle TaskRegistry::AcquireUntil(const std::string& id, TaskAccess::Deadline deadline) const {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        TaskHandle handle = TryAcquire(id);
        if (handle.pin) return handle;
        if (changed_.wait_until(lock, deadline) == std::cv_status::timeout) return TryAcquire(id);
    }
}

TaskHandle TaskRegistry::TryAcquire(const std::string& id) const {
    std::shared_ptr<TaskRunner> runner = FindRunner(id);
    if (!runner) return {};
    TaskPin pin = runner->Pin();
    return {std::move(runner), std::move(pin)};
}

std::shared_ptr<TaskRunner> TaskRegistry::FindRunner(const std::string& id) const {
    for (const auto& runner : runners_) {
        if (runner->Id() == id) return runner;
    }
    return nullptr;
}

void TaskRegistry::ForTasksOf(const Module& module,
                              const std::function<void(TaskRunner&)>& call) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& runner : runners_) {
        if (&runner->Owner() == &module) call(*runner);
    }
}

void TaskRegistry::ReportStalls() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& runner : runners_) runner->ReportStall();
}

std::string TaskRegistry::FindStuck(std::chrono::milliseconds limit) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::string stuck;
    for (const auto& runner : runners_) {
        if (runner->SinceProgress() >= limit) stuck = runner->Id();
    }
    return stuck;
}

void TaskRegistry::InterruptPolicyBlockers() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& runner : runners_) {
        if (runner->ShouldYield()) runner->InterruptForPolicy();
    }
}

std::vector<TaskStatus> TaskRegistry::Statuses() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<TaskStatus> statuses;
    for (const auto& runner : runners_) statuses.push_back(runner->Status());
    return statuses;
}

}  // namespace Framework
