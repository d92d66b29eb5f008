#pragma once

namespace Framework {

class AloneHold;

/// Lets the tasks of a module work while one of its policy callbacks waits for something outside
/// the module, such as the end of a process: while the object lives, the callback's thread does not
/// hold the module's gate. Where the thread holds no gate alone (a task's thread, the start and end
/// of a module, inside another such object) it does nothing.
///
/// - Before: the settings are whole. Tasks work with what the callback has written so far.
/// - Meanwhile: the callback reads and writes no settings. UnRegisterTask is allowed.
/// - After: the gate is held alone again. That is waited for as at the begin of the callback: tasks
///   are woken, and interrupted after the grace of policies.
class OutsideGate {
  public:
    OutsideGate();
    ~OutsideGate();
    OutsideGate(const OutsideGate&) = delete;
    OutsideGate& operator=(const OutsideGate&) = delete;

  private:
    AloneHold* const let_go_;
};

}  // namespace Framework
