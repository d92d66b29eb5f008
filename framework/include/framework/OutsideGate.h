#pragma once

namespace Framework {

class ExclusiveGateLock;

/// Releases the module's gate while one of its policy callbacks waits for something outside the
/// module, such as the end of a process, so that the module's tasks can work meanwhile. The
/// destructor takes the gate again. Does nothing on a thread that holds no gate exclusively: a
/// task's thread, the start and end of a module, inside another such object.
///
/// - Before: the settings must be complete, since tasks use what the callback has written so far.
/// - Meanwhile: the callback must not read or write settings. UnRegisterTask is allowed.
/// - After: the gate is held exclusively again. The wait for it wakes tasks and interrupts them
/// after the grace period of policies, as at the start of a callback.
class OutsideGate {
  public:
    OutsideGate();
    ~OutsideGate();
    OutsideGate(const OutsideGate&) = delete;
    OutsideGate& operator=(const OutsideGate&) = delete;

  private:
    ExclusiveGateLock* const released_;
};

}  // namespace Framework
