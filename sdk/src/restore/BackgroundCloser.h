#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// Closes descriptors on a thread of its own. Closing the last handle of a file that has been
/// removed waits until what was just written to it is on the disk: milliseconds, in which the next
/// file could be restored. Any thread.
class BackgroundCloser {
  public:
    static BackgroundCloser& GetInstance();
    ~BackgroundCloser();

    /// Takes the descriptor over; closes it at once when too many wait.
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
