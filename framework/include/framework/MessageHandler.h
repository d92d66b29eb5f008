#pragma once

#include <string>

namespace Framework {

class Message;

/// The message interface of a task. The framework calls it; tasks override the operations that they
/// need.
class MessageHandler {
  public:
    /// Takes a message into the queue (SendAgileMsg). Thread-safe; must not block. True: the
    /// framework owns the message. False: the caller keeps it.
    virtual bool EnqueueMsg(Message* msg) = 0;

    /// Handles a direct message on the sender's thread, under this task's handler lock. 0 on
    /// success, negative on failure; `reply` is for SyncSendDirectMsg. The framework owns the
    /// message.
    virtual int InterceptMsg(Message* msg, std::string& reply) = 0;

    /// Handles one queued message on the task's own thread, under the handler lock.
    virtual void HandleMsg(Message* msg) = 0;

  protected:
    ~MessageHandler() = default;
};

}  // namespace Framework
