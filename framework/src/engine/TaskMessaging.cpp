// Sends messages from one task to another: queued, or handled on the sender's thread. Owns a direct
// message until it is handled. TaskRegistry finds targets and keeps them registered; TaskAccess has
// the handler lock. Runs on the senders' threads.
#include <framework/Engine.h>
#include <framework/Message.h>
#include <framework/Task.h>

#include <algorithm>
#include <cstdint>

#include "base/ExceptionBarrier.h"
#include "tasks/TaskAccess.h"
#include "tasks/TaskRegistry.h"

namespace Framework {

namespace {

constexpr int kNoSuchTask = -1;
constexpr int kHandlerFailed = -2;
constexpr int kNotInTime = -3;
constexpr std::chrono::seconds kInitWait{5};

std::string Intercept(Task& task, Message& msg, std::string& reply, int& result) {
    return RunGuarded([&] { result = task.InterceptMsg(&msg, reply); });
}

/// Runs the handler of a pinned task.
int CallHandler(TaskHandle& handle, Message& msg, std::string& reply,
                TaskAccess::Deadline deadline) {
    TaskAccess& access = *handle.pin;
    switch (access.LockHandler(deadline)) {
        case TaskAccess::Locked::kBusy:
            return kNotInTime;
        case TaskAccess::Locked::kByCaller:
            SDK_LOG(RootLogger(), PRIO_ERROR,
                    "Task(%s) got a direct message from within its own handler, refused.",
                    handle.runner->Id());
            return kHandlerFailed;
        case TaskAccess::Locked::kYes:
            break;
    }
    const HandlerLockGuard unlock(access);
    int result = kHandlerFailed;
    const std::string thrown = Intercept(*handle.runner->Target(), msg, reply, result);
    if (!thrown.empty()) {
        SDK_LOG(RootLogger(), PRIO_ERROR, "Task(%s) failed on a direct message: %s",
                handle.runner->Id(), thrown);
    }
    return thrown.empty() && result == 0 ? 0 : kHandlerFailed;
}

}  // namespace

bool Task::SendAgileMsg(Task* task, Message* msg) {
    if (task == nullptr || msg == nullptr) return false;
    const TaskPin pin(task->access_);
    if (!pin) return false;
    bool taken = false;
    const std::string thrown = RunGuarded([&] { taken = task->EnqueueMsg(msg); });
    if (!thrown.empty()) {
        SDK_LOG(RootLogger(), PRIO_ERROR, "Task(%s) failed to take a message: %s", task->Id(),
                thrown);
    }
    return taken;
}

int Task::SendDirectMsg(const std::string& target, Message* msg) {
    const std::unique_ptr<Message> owned(msg);
    if (!owned) return kHandlerFailed;
    TaskHandle handle = Engine::Instance().Tasks().Acquire(target);
    if (!handle.pin) return kNoSuchTask;
    // A task may send to itself from its Init.
    const auto deadline = std::chrono::steady_clock::now() + kInitWait;
    if (!handle.runner->IsOwnThread() && !handle.pin->WaitReady(deadline)) return kNoSuchTask;
    std::string reply;
    return CallHandler(handle, *owned, reply, TaskAccess::Deadline::max());
}

int Task::SyncSendDirectMsg(const std::string& target, Message* msg, std::string& reply,
                            int timeout_ms, int retries) {
    const std::unique_ptr<Message> owned(msg);
    if (!owned) return kHandlerFailed;
    const std::int64_t tries = 1 + std::int64_t{std::max(retries, 0)};
    const auto now = std::chrono::steady_clock::now();
    const auto deadline = now + std::chrono::milliseconds(tries * std::max(timeout_ms, 0));
    TaskHandle handle =
        Engine::Instance().Tasks().AcquireUntil(target, isCancelled() ? now : deadline);
    if (!handle.pin) return kNotInTime;
    if (!handle.runner->IsOwnThread() && !handle.pin->WaitReady(deadline)) return kNotInTime;
    return CallHandler(handle, *owned, reply, deadline);
}

}  // namespace Framework
