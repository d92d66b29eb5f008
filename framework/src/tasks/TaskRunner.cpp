// Drives one registration of a task. Owns the framework's reference and the interrupter of the
// task's external commands. Init and Run hold the module's gate shared; UnInit does not, since the
// framework thread may be waiting for it. Runs on the task's thread; Finish on the framework
// thread.
#include "tasks/TaskRunner.h"

#include <framework/ConfigManager.h>
#include <framework/ModuleGate.h>
#include <framework/RunSoon.h>
#include <pthread.h>

#include <algorithm>

#include "base/ExceptionBarrier.h"
#include "tasks/TaskQueue.h"

namespace Framework {

namespace {

constexpr std::size_t kThreadNameLength = 15;          // the kernel's limit
constexpr std::int64_t kLongestLimit = 1'000'000'000;  // does not overflow in nanoseconds

}  // namespace

/// Holds the gate shared while it lives; false when the task was stopped before it got the gate.
class TaskRunner::SharedGateLock {
  public:
    explicit SharedGateLock(TaskRunner& runner)
        : runner_(runner), held_(runner.module_.Gate().LockShared(runner.stopping_)) {
        if (held_) runner_.SetInterruptible(true);
    }
    ~SharedGateLock() {
        if (!held_) return;
        runner_.SetInterruptible(false);
        runner_.module_.Gate().UnlockShared();
    }
    SharedGateLock(const SharedGateLock&) = delete;
    SharedGateLock& operator=(const SharedGateLock&) = delete;
    explicit operator bool() const { return held_; }

  private:
    TaskRunner& runner_;
    const bool held_;
};

TaskRunner::TaskRunner(Module& module, Poco::AutoPtr<Task> task)
    : module_(module),
      task_(std::move(task)),
      id_(task_->Id()),
      access_(task_->access_),
      period_(ConfigManager::GetInstance().TaskPeriod()) {}

void TaskRunner::Attach() {
    task_->reset();
    task_->SetRunner(shared_from_this());
    task_->queue_->Open();
    access_->Open();
}

bool TaskRunner::Start(Poco::ThreadPool& pool) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        started_ = true;
    }
    const std::string failure = RunGuarded([&] { pool.start(*this, id_); });
    if (failure.empty()) return true;
    SDK_LOG(RootLogger(), PRIO_ERROR, "Task(%s) got no thread: %s", id_, failure);
    const std::lock_guard<std::mutex> lock(mutex_);
    started_ = false;
    return false;
}

void TaskRunner::run() {
    const std::shared_ptr<TaskRunner> self = shared_from_this();
    thread_ = std::this_thread::get_id();
    ::pthread_setname_np(::pthread_self(), id_.substr(0, kThreadNameLength).c_str());
    task_->run();
    const std::lock_guard<std::mutex> lock(mutex_);
    thread_ = std::thread::id();
    ended_ = true;
    changed_.notify_all();
}

void TaskRunner::RunTask() {
    const SDK::CommandInterrupter::Scope commands(interrupter_);
    if (!RunInit()) return;
    access_->SetReady();
    RunPasses();
    RunUnInit();
}

/// False when the task was stopped before Init; UnInit is then left out too.
bool TaskRunner::RunInit() {
    const SharedGateLock gate(*this);
    if (!gate) return false;
    const SDK::ThreadProgress::Job watched(progress_);
    bool ok = false;
    const std::string thrown = RunGuarded([&] { ok = task_->Init(); });
    monitor_.InitEnded(ok);
    if (!ok) {
        SDK_LOG(RootLogger(), PRIO_ERROR, "Task(%s) failed to initialise: %s", id_,
                thrown.empty() ? std::string("refused") : thrown);
    }
    return true;
}

void TaskRunner::RunPasses() {
    const bool periodic = task_->Type() == TaskCondition::kPeriodic;
    for (;;) {
        const auto begin = Clock::now();
        const bool succeeded = RunPass();
        // The period counts from start to start. A pass that is longer than the period is followed
        // by the next at once, but a pass that threw is not: it might throw without end.
        const bool pause = periodic || !succeeded;
        if (pause ? !WaitUntil(begin + period_) : stopping_.load()) return;
    }
}

bool TaskRunner::RunPass() {
    const SharedGateLock gate(*this);
    if (!gate) return true;
    const SDK::ThreadProgress::Job watched(progress_);
    monitor_.PassBegins(StallLimit());
    const std::string thrown = RunGuarded([&] { task_->Run(); });
    monitor_.PassEnds();
    if (!thrown.empty() && thrown != last_failure_) {
        SDK_LOG(RootLogger(), PRIO_ERROR, "Task(%s) failed in a pass: %s", id_, thrown);
    }
    last_failure_ = thrown;
    return thrown.empty();
}

void TaskRunner::RunUnInit() {
    const SDK::ThreadProgress::Job watched(progress_);
    access_->Close();  // cancel sets its flag before it closes the access
    access_->WaitIdle();
    EndInterruption();
    bool ok = false;
    const std::string thrown = RunGuarded([&] { ok = task_->UnInit(); });
    if (!ok) {
        SDK_LOG(RootLogger(), PRIO_ERROR, "Task(%s) failed to uninitialise: %s", id_,
                thrown.empty() ? std::string("refused") : thrown);
    }
}

/// False when the task was stopped meanwhile.
bool TaskRunner::WaitUntil(Clock::time_point next) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_until(lock, next, [this] { return stopping_ || is_wanted_; });
    is_wanted_ = false;
    return !stopping_;
}

void TaskRunner::RunSoon() {
    Wake();
    const std::lock_guard<std::mutex> lock(mutex_);
    is_wanted_ = true;
    changed_.notify_all();
}

void TaskRunner::SetInterruptible(bool interruptible) {
    const std::lock_guard<std::mutex> lock(mutex_);
    interruptible_ = interruptible;
    if (interruptible && stopping_) interrupter_.Interrupt();
}

/// Call with the gate held, since a policy callback may change the condition.
std::chrono::seconds TaskRunner::StallLimit() const {
    const TaskCondition::Condition& condition = task_->condition_.GetTaskCondition();
    const bool in_force =
        task_->condition_in_force_ && condition.kind == TaskCondition::kStallLimit;
    return std::chrono::seconds(in_force ? std::min(condition.value, kLongestLimit) : -1);
}

void TaskRunner::InterruptForStop() {
    module_.Gate().WakeWaiting();
    const std::lock_guard<std::mutex> lock(mutex_);
    if (interruptible_) interrupter_.Interrupt();
    changed_.notify_all();
}

void TaskRunner::Wake() {
    task_->waiter_.Wake();
}

void TaskRunner::InterruptForPolicy() {
    Wake();
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!interruptible_) return;
    interrupter_.Interrupt();
    SDK_LOG(RootLogger(), PRIO_NOTICE,
            "Task(%s): a policy waits for its pass to end, its external commands are interrupted.",
            id_);
}

void TaskRunner::EndInterruption() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!interruptible_) interrupter_.Reset();
}

bool TaskRunner::ShouldYield() const {
    return stopping_ || module_.Gate().HasExclusiveWaiter();
}

void TaskRunner::ReportStall() {
    if (!monitor_.HasNewlyStalled()) return;
    SDK_LOG(RootLogger(), PRIO_WARNING, "Task(%s) has stalled: its pass is longer than its limit.",
            id_);
}

TaskStatus TaskRunner::Status() const {
    TaskStatus status;
    monitor_.Fill(status);
    status.id = id_;
    status.feature = task_->Feature();
    status.module = module_.name();
    status.queue_length = task_->QueueLength();
    if (stopping_) status.state = "stopping";
    return status;
}

void TaskRunner::Finish() {
    task_->cancel();
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return ended_ || !started_; });
    }
    access_->WaitIdle();
    task_->queue_->Drain();
    task_->SetRunner(nullptr);
}

void RunSoon(Task& task) {
    if (const std::shared_ptr<TaskRunner> runner = TaskRunner::Of(task)) runner->RunSoon();
}

}  // namespace Framework
