#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "walk/DirectoryScan.h"

namespace Engine::FileNotify {

/// Runs scans on the caller's thread and on an optional second thread. Owned by InitialScan. Not
/// thread-safe.
class ScanWorkers {
  public:
    /// `drain_events` is called on the caller's thread during long scans.
    ScanWorkers(InotifyDescriptor& inotify, std::function<void()> drain_events);
    ~ScanWorkers() { StopHelper(); }
    ScanWorkers(const ScanWorkers&) = delete;
    ScanWorkers& operator=(const ScanWorkers&) = delete;

    /// Starts the first `count` of `scans` on the second thread, if there is one. The caller must
    /// not use `scans` until Finish returns.
    void Begin(std::vector<DirectoryScan>& scans, std::size_t count);

    /// Runs the remaining scans. All scans are done when it returns.
    void Finish();

    /// Starts the second thread. Does nothing when it runs already, on a single processor, or when
    /// no thread can be started.
    void StartHelper();

    /// Ends the second thread and joins it. Does nothing when there is none.
    void StopHelper();

  private:
    void RunHelper() noexcept;
    void RunScans(const std::function<void()>& drain_events) noexcept;

    InotifyDescriptor& inotify_;
    const std::function<void()> drain_events_;
    std::vector<DirectoryScan>* scans_ = nullptr;
    std::size_t count_ = 0;
    std::atomic<std::size_t> next_{0};

    std::thread helper_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool helper_wanted_ = false;  ///< scans wait for the helper
    bool helper_busy_ = false;
    bool ending_ = false;
};

}  // namespace Engine::FileNotify
