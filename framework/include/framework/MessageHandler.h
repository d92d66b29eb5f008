#pragma once

#include <string>

namespace Framework {

class Message;

/// The message interface of a task. The framework calls it; tasks override what they need.
class MessageHandler {
  public:
    /// Takes a queued message (SendAgileMsg); any thread, must not block. True: taken, the message
    /// is the framework's. False: refused, it stays the caller's.
    virtual bool EnqueueMsg(Message* msg) = 0;

    /// Handles a direct message on the sender's thread, under this task's handler lock. 0 when
    /// handled, negative otherwise; `reply` is for SyncSendDirectMsg. The message stays the
    /// framework's.
    virtual int InterceptMsg(Message* msg, std::string& reply) = 0;

    /// Handles one queued message on the task's own thread, under the handler lock.
    virtual void HandleMsg(Message* msg) = 0;

  protected:
    ~MessageHandler() = default;
};

}  // namespace Framework
