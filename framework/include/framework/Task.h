#pragma once

#include <Poco/Task.h>
#include <framework/EventWaiter.h>
#include <framework/MessageHandler.h>
#include <framework/TaskCondition.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

namespace Framework {

class Message;
class TaskAccess;
class TaskRegistry;
class TaskRunner;

/// A unit of work with a thread and a bounded message queue of its own, named by its id.
///
/// A task is reference-counted (Poco) and starts with one reference, its maker's. RegisterTask
/// takes one reference over and releases it when the task has been unregistered; the maker
/// therefore calls duplicate() before it. The object may be registered again after that.
///
/// From registration to unregistration the framework calls, on the task's thread: Init, then Run
/// again and again, then UnInit. Init and Run hold the module's gate shared: no policy callback of
/// the module runs meanwhile, so they may read settings without a lock. UnInit runs outside the
/// gate. Nothing may be thrown out of them; what is thrown all the same is caught, logged and ends
/// the pass.
class Task : public Poco::Task, public MessageHandler {
  public:
    /// `queue_capacity`: the most messages that wait; 1 to 65534.
    Task(const std::string& id, const std::string& feature, TaskCondition::TaskType type,
         unsigned int queue_capacity);
    ~Task() override;
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    // Poco::Task
    void cancel() override;   ///< asks the task to stop and wakes it; any thread
    void runTask() override;  ///< the thread's body: Init, the passes, UnInit

    /// False: the failure is logged and shown in the status; the task runs all the same.
    virtual bool Init();
    virtual bool UnInit();
    /// One pass; the result is for the status only.
    virtual int Run();

    // MessageHandler
    bool EnqueueMsg(Message* msg) override;                       ///< puts it into the queue
    int InterceptMsg(Message* msg, std::string& reply) override;  ///< HandleMsg, then 0
    void HandleMsg(Message* msg) override;                        ///< msg->Deliver(*this)

    /// Hands at most `max_messages` queued messages to HandleMsg and frees them; never waits for
    /// one. Leaves the rest for the next pass when the task is stopping or a policy waits for it.
    /// Returns how many. Task's thread only.
    std::size_t BulkConsumeMsg(std::size_t max_messages);

    /// True when the present pass should come to an end, as the task is stopping or a policy waits
    /// for it. Who waits within a pass asks this whenever its Waiter has returned. Task's thread.
    bool ShouldYield() const;

    /// Queues `msg` for `task` and wakes it. False when the queue is full, the task is not
    /// registered or stopping: the message then stays the caller's. Never blocks (report tasks
    /// excepted, which store the report first). Any thread.
    static bool SendAgileMsg(Task* task, Message* msg);

    /// Runs the handler of the task `target` on the calling thread, under that task's handler lock.
    /// 0 when handled, negative otherwise: -1 no such task (also: one that stops, or whose Init
    /// has not ended within 5 s), -2 the handler failed, or was this thread's caller already. `msg`
    /// is freed in every case. Any thread. A handler may send in turn, to tasks further down the
    /// line only: features to services (file-notify), both to report tasks.
    int SendDirectMsg(const std::string& target, Message* msg);

    /// The same, and gives the handler's reply. Tries to get the target (registered, its Init
    /// over, its handler lock free) for `timeout_ms`, and again up to `retries` times; -3 when it
    /// could not be had in time. A sender that is stopping does not wait for a missing target.
    int SyncSendDirectMsg(const std::string& target, Message* msg, std::string& reply,
                          int timeout_ms, int retries);

    /// The condition, and whether it is in force. Before registration, or in a policy callback.
    void SetTaskCondition(const TaskCondition::Condition& condition);
    void SetConditionInForce(bool in_force);

    const std::string& Id() const { return name(); }
    const std::string& Feature() const { return feature_; }
    TaskCondition::TaskType Type() const { return type_; }
    EventWaiter& Waiter() { return waiter_; }

    /// Messages waiting; approximate. Any thread.
    std::size_t QueueLength() const;

  private:
    friend class TaskRegistry;
    friend class TaskRunner;
    class Queue;

    std::shared_ptr<TaskRunner> Runner() const;
    void SetRunner(std::shared_ptr<TaskRunner> runner);

    const std::string feature_;
    const TaskCondition::TaskType type_;
    TaskCondition condition_;
    bool condition_in_force_ = false;
    EventWaiter waiter_;
    const std::unique_ptr<Queue> queue_;
    const std::shared_ptr<TaskAccess> access_;
    mutable std::mutex runner_mutex_;     ///< guards runner_
    std::shared_ptr<TaskRunner> runner_;  ///< set while registered
};

}  // namespace Framework
