#pragma once

#include <sdk/files/FileDescriptor.h>

#include <functional>
#include <map>

namespace Framework {

/// Lets a task's thread wait for its event sources and its message queue at the same time.
///
/// Wake is thread-safe; call everything else on the task's thread only.
class EventWaiter {
  public:
    using Handler = std::function<void()>;
    /// What a source waits for. kUrgent: an exceptional condition, as files below /proc report that
    /// they have changed; these are readable at any time.
    enum class Readiness { kReadable, kUrgent };

    /// `messages_wait` returns true while the task's queue holds messages; a wait then returns at
    /// once.
    explicit EventWaiter(std::function<bool()> messages_wait = {});
    ~EventWaiter();
    EventWaiter(const EventWaiter&) = delete;
    EventWaiter& operator=(const EventWaiter&) = delete;

    /// `handler` runs in WaitAndHandleEvent whenever `fd` is ready. The caller keeps ownership
    /// of the descriptor and removes it before closing it. False (errno) when it cannot be watched.
    bool AddSource(int fd, Handler handler, Readiness readiness = Readiness::kReadable);
    void RemoveSource(int fd);

    /// Waits at most `timeout_ms` for event sources, messages, or a Wake, and runs the handlers of
    /// at most `max_events` ready sources. Returns their number; -1 when none was ready, because of
    /// messages, a Wake or the timeout.
    int WaitAndHandleEvent(int timeout_ms, int max_events);

    /// Ends the current or next wait. Several calls count as one.
    void Wake();

  private:
    std::function<bool()> messages_wait_;
    SDK::FileDescriptor epoll_;
    SDK::FileDescriptor wake_;
    std::map<int, Handler> handlers_;
};

}  // namespace Framework
