#pragma once

#include <sdk/files/FileDescriptor.h>

#include <functional>
#include <map>

namespace Framework {

/// Lets a task's thread wait for its event sources and for its message queue at once.
///
/// Wake may be called from any thread; everything else by the task's thread only.
class EventWaiter {
  public:
    using Handler = std::function<void()>;

    /// `messages_wait` tells whether the task's queue holds messages; a wait does not wait then.
    explicit EventWaiter(std::function<bool()> messages_wait = {});
    ~EventWaiter();
    EventWaiter(const EventWaiter&) = delete;
    EventWaiter& operator=(const EventWaiter&) = delete;

    /// `handler` runs in WaitAndHandleEvent whenever `fd` is readable. The descriptor stays the
    /// caller's, who removes it before closing it. False with errno when it cannot be watched.
    bool AddSource(int fd, Handler handler);
    void RemoveSource(int fd);

    /// Waits at most `timeout_ms` for event sources, messages, or a Wake, and runs the handlers of
    /// at most `max_events` ready sources. Returns how many; -1 when none was ready: messages are
    /// waiting, the task was woken, or the time is up.
    int WaitAndHandleEvent(int timeout_ms, int max_events);

    /// Ends the present or next wait. Wakes add up to one.
    void Wake();

  private:
    std::function<bool()> messages_wait_;
    SDK::FileDescriptor epoll_;
    SDK::FileDescriptor wake_;
    std::map<int, Handler> handlers_;
};

}  // namespace Framework
