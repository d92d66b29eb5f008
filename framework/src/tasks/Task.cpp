// Owns a task's queue and the messages in it, and passes on its stop signal. TaskRunner decides
// when and on which thread its operations run; TaskMessaging.cpp sends messages to it.
#include <framework/Message.h>
#include <framework/Task.h>

#include <algorithm>

#include "base/ExceptionBarrier.h"
#include "tasks/TaskAccess.h"
#include "tasks/TaskQueue.h"
#include "tasks/TaskRunner.h"

namespace Framework {

namespace {

constexpr unsigned int kMostMessages = 65534;

}  // namespace

Task::Task(const std::string& id, const std::string& feature, TaskCondition::TaskType type,
           unsigned int queue_capacity)
    : Poco::Task(id),
      feature_(feature),
      type_(type),
      waiter_([this] { return queue_->Length() > 0; }),
      queue_(std::make_unique<Queue>(std::clamp(queue_capacity, 1U, kMostMessages))),
      access_(std::make_shared<TaskAccess>()) {}

Task::~Task() = default;

std::shared_ptr<TaskRunner> Task::Runner() const {
    const std::lock_guard<std::mutex> lock(runner_mutex_);
    return runner_;
}

void Task::SetRunner(std::shared_ptr<TaskRunner> runner) {
    const std::lock_guard<std::mutex> lock(runner_mutex_);
    runner_ = std::move(runner);
}

void Task::cancel() {
    const std::shared_ptr<TaskRunner> runner = Runner();
    // Sets the runner's flag first, so that everything woken below sees it.
    if (runner) runner->MarkStopping();
    Poco::Task::cancel();
    queue_->Close();
    access_->Close();
    if (runner) runner->InterruptForStop();
    waiter_.Wake();
}

void Task::runTask() {
    if (const std::shared_ptr<TaskRunner> runner = Runner()) runner->RunTask();
}

bool Task::Init() {
    return true;
}

bool Task::UnInit() {
    return true;
}

int Task::Run() {
    return 0;
}

bool Task::EnqueueMsg(Message* msg) {
    const Queue::Pushed pushed = queue_->Push(msg);
    if (pushed == Queue::Pushed::kTakenFirst) waiter_.Wake();
    return pushed != Queue::Pushed::kRefused;
}

int Task::InterceptMsg(Message* msg, std::string&) {
    HandleMsg(msg);
    return 0;
}

void Task::HandleMsg(Message* msg) {
    msg->Deliver(*this);
}

std::size_t Task::BulkConsumeMsg(std::size_t max_messages) {
    const std::shared_ptr<TaskRunner> runner = Runner();
    std::size_t handled = 0;
    while (handled < max_messages && !(runner && runner->ShouldYield())) {
        const std::unique_ptr<Message> msg = queue_->Pop();
        if (!msg) break;
        ++handled;
        const auto locked = access_->LockHandler(TaskAccess::Deadline::max());
        const std::string thrown = RunGuarded([&] { HandleMsg(msg.get()); });
        if (locked == TaskAccess::Locked::kYes) access_->UnlockHandler();
        if (!thrown.empty()) {
            SDK_LOG(RootLogger(), PRIO_ERROR, "Task(%s) failed on a message: %s", Id(), thrown);
        }
    }
    return handled;
}

void Task::SetTaskCondition(const TaskCondition::Condition& condition) {
    condition_.SetTaskCondition(condition);
}

void Task::SetConditionInForce(bool in_force) {
    condition_in_force_ = in_force;
}

bool Task::ShouldYield() const {
    const std::shared_ptr<TaskRunner> runner = Runner();
    return runner && runner->ShouldYield();
}

std::size_t Task::QueueLength() const {
    return queue_->Length();
}

}  // namespace Framework
