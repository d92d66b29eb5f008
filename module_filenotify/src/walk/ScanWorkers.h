#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "walk/DirectoryScan.h"

namespace Engine::FileNotify {

/// Runs scans, on the caller's thread and, once it is called for, on one more. Owned and called
/// by the task's thread only.
class ScanWorkers {
  public:
    /// `between` is called on the caller's thread while a long scan goes on.
    ScanWorkers(InotifyDescriptor& inotify, std::function<void()> between);
    ~ScanWorkers() { Dismiss(); }
    ScanWorkers(const ScanWorkers&) = delete;
    ScanWorkers& operator=(const ScanWorkers&) = delete;

    /// Lets the second thread start on `scans`, of which the first `count` are to be run, if it
    /// is there; they are its until Finish has returned.
    void Begin(std::vector<DirectoryScan>& scans, std::size_t count);

    /// Takes part in what was begun; when it returns all of it is done.
    void Finish();

    /// Calls for the second thread, where there is a second processor. Without one, or when none
    /// can be started, all goes on without it.
    void Reinforce();

    /// Ends the second thread and waits for that.
    void Dismiss();

  private:
    void RunHelper() noexcept;
    void WorkOn(const std::function<void()>& between) noexcept;

    InotifyDescriptor& inotify_;
    const std::function<void()> between_;
    std::vector<DirectoryScan>* scans_ = nullptr;
    std::size_t count_ = 0;
    std::atomic<std::size_t> next_{0};

    std::thread helper_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool helper_wanted_ = false;  ///< there is work that the helper has not looked at yet
    bool helper_busy_ = false;
    bool ending_ = false;
};

}  // namespace Engine::FileNotify
