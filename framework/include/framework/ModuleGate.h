#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace Framework {

/// Keeps a module's policy callbacks apart from its tasks: a callback holds the gate alone, the
/// tasks hold it shared while in Init and Run. A waiting callback goes first. Not recursive. Any
/// thread.
class ModuleGate {
  public:
    /// Waits while a callback holds the gate or waits for it. False, and the gate not held, when
    /// `give_up` is set: who sets it calls WakeWaiting after.
    bool LockShared(const std::atomic<bool>& give_up);
    void UnlockShared();
    void WakeWaiting();

    /// Calls `nudge` at once if tasks hold the gate (to wake them out of their waits), and
    /// `interrupt` when they still hold it after `grace`, and again each `grace` after that.
    void LockAlone(std::chrono::milliseconds grace, const std::function<void()>& nudge,
                   const std::function<void()>& interrupt);
    void UnlockAlone();

    /// True while a callback waits for the gate: who holds it shared should come to an end.
    bool IsWanted() const;

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    int shared_holders_ = 0;
    int waiting_alone_ = 0;
    bool held_alone_ = false;
};

}  // namespace Framework
