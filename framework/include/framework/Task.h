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

/// A unit of work with its own thread and bounded message queue, named by its id.
///
/// A task is reference-counted (Poco); its creator holds the first reference. RegisterTask takes
/// one reference, so call duplicate() before it; the framework releases that after the task is
/// unregistered. The object may be registered again.
///
/// From registration to unregistration the framework calls on the task's thread: Init, then Run
/// repeatedly, then UnInit. Init and Run hold the module's gate shared, so no policy callback of
/// the module runs meanwhile and they may read settings without a lock. UnInit runs without the
/// gate. They should not throw; the framework catches and logs an exception, which ends the pass.
class Task : public Poco::Task, public MessageHandler {
  public:
    /// `queue_capacity`: upper bound of waiting messages, 1 to 65534.
    Task(const std::string& id, const std::string& feature, TaskCondition::TaskType type,
         unsigned int queue_capacity);
    ~Task() override;
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    // Poco::Task
    void cancel() override;   ///< asks the task to stop and wakes it; thread-safe
    void runTask() override;  ///< the body of the thread: Init, passes, UnInit

    /// False: the failure is logged and shown in the status; the task runs nevertheless.
    virtual bool Init();
    virtual bool UnInit();
    /// One pass; the result is for the status only.
    virtual int Run();

    // MessageHandler
    bool EnqueueMsg(Message* msg) override;                       ///< puts it into the queue
    int InterceptMsg(Message* msg, std::string& reply) override;  ///< HandleMsg, then 0
    void HandleMsg(Message* msg) override;                        ///< msg->Deliver(*this)

    /// Passes at most `max_messages` queued messages to HandleMsg and deletes them; never waits for
    /// a message. Stops early when the task is stopping or a policy waits for it. Returns the
    /// number of handled messages. Task's thread only.
    std::size_t BulkConsumeMsg(std::size_t max_messages);

    /// True when the current pass should end: the task is stopping or a policy waits for it. A pass
    /// that waits must check this whenever its Waiter returns. Task's thread only.
    bool ShouldYield() const;

    /// Queues `msg` for `task` and wakes it. False when the queue is full, or the task is stopping
    /// or not registered; the caller then keeps the message. Never blocks, except for report tasks,
    /// which store the report first. Thread-safe.
    static bool SendAgileMsg(Task* task, Message* msg);

    /// Runs the handler of the task `target` on the calling thread, under that task's handler lock.
    /// Returns 0 on success; -1 when there is no such task, it is stopping, or its Init takes
    /// longer than 5 s; -2 when the handler failed, or the calling thread is already in it. Always
    /// deletes `msg`. Thread-safe. Handlers may send only in this direction: features to services
    /// (file-notify), both to report tasks.
    int SendDirectMsg(const std::string& target, Message* msg);

    /// The same with the handler's reply. Waits `timeout_ms`, and again up to `retries` times,
    /// until the target is registered, its Init has ended and its handler lock is free; -3 when
    /// that takes too long. A sender that is stopping does not wait for a missing target.
    int SyncSendDirectMsg(const std::string& target, Message* msg, std::string& reply,
                          int timeout_ms, int retries);

    /// Sets the condition, and whether it applies. Call before registration or in a policy
    /// callback.
    void SetTaskCondition(const TaskCondition::Condition& condition);
    void SetConditionInForce(bool in_force);

    const std::string& Id() const { return name(); }
    const std::string& Feature() const { return feature_; }
    TaskCondition::TaskType Type() const { return type_; }
    EventWaiter& Waiter() { return waiter_; }

    /// Number of waiting messages; approximate. Thread-safe.
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
