#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

namespace Framework {

class TaskRegistry;

/// The engine's housekeeping thread: checks once a second for stalled passes. Runs from
/// construction to destruction.
class StallMonitor {
  public:
    explicit StallMonitor(const TaskRegistry& tasks);
    ~StallMonitor();
    StallMonitor(const StallMonitor&) = delete;
    StallMonitor& operator=(const StallMonitor&) = delete;

  private:
    void Loop();

    const TaskRegistry& tasks_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool ending_ = false;
    std::thread thread_;
};

}  // namespace Framework
