#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace Framework {

/// A read-write lock between a module's policy callbacks, which hold it exclusively, and its tasks,
/// which hold it shared in Init and Run. A waiting callback has priority. Not recursive.
/// Thread-safe.
class ModuleGate {
  public:
    /// Blocks while a callback holds the gate or waits for it. Returns false without the lock when
    /// `give_up` is set; its setter must call WakeWaiting afterwards.
    bool LockShared(const std::atomic<bool>& give_up);
    void UnlockShared();
    void WakeWaiting();

    /// Blocks until no task holds the gate. Calls `wake_tasks` at once when tasks hold it, so that
    /// they end their waits, and `interrupt` each `grace` for as long as they still hold it.
    void LockExclusive(std::chrono::milliseconds grace, const std::function<void()>& wake_tasks,
                       const std::function<void()>& interrupt);
    void UnlockExclusive();

    /// True while a callback waits for the gate: tasks that hold it should end their pass.
    bool HasExclusiveWaiter() const;

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    int shared_owners_ = 0;
    int waiting_exclusively_ = 0;
    bool held_exclusively_ = false;
};

}  // namespace Framework
