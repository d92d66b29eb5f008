#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// Closes descriptors on its own thread. Closing the last descriptor of a removed file blocks for
/// milliseconds until its data is on disk. Thread-safe.
class BackgroundCloser {
  public:
    static BackgroundCloser& GetInstance();
    ~BackgroundCloser();
    BackgroundCloser(const BackgroundCloser&) = delete;
    BackgroundCloser& operator=(const BackgroundCloser&) = delete;

    /// Takes ownership of the descriptor; closes it at once when too many are waiting.
    void Close(FileDescriptor descriptor);

  private:
    BackgroundCloser();
    void Run();

    const pid_t process_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<FileDescriptor> waiting_;  // guarded by mutex_, as is is_ending_
    bool is_ending_ = false;
    std::thread thread_;
};

}  // namespace SDK
