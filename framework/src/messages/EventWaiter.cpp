// Owns the epoll descriptor, the wake descriptor and the handlers of event sources. Must not
// close sources (their owners do). Wake runs on any thread, the rest on the task's thread.
#include <framework/EventWaiter.h>
#include <sdk/time/ThreadProgress.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <system_error>
#include <utility>

namespace Framework {

namespace {

constexpr int kMostEvents = 64;

SDK::FileDescriptor CheckedDescriptor(int fd, const char* what) {
    if (fd < 0) throw std::system_error(errno, std::generic_category(), what);
    return SDK::FileDescriptor(fd);
}

bool Watch(int epoll, int fd, std::uint32_t events = EPOLLIN) {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    return ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

/// epoll_wait(2) that continues after a signal.
int WaitForReady(int epoll, epoll_event* events, int room, int timeout_ms) {
    using Clock = std::chrono::steady_clock;
    const SDK::ThreadProgress::Pause pause;
    const auto end = Clock::now() + std::chrono::milliseconds(std::max(timeout_ms, 0));
    for (;;) {
        const int ready = ::epoll_wait(epoll, events, room, timeout_ms);
        if (ready >= 0 || errno != EINTR) return ready;
        if (timeout_ms < 0) continue;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        timeout_ms = static_cast<int>(std::max<std::int64_t>(left.count(), 0));
    }
}

}  // namespace

EventWaiter::EventWaiter(std::function<bool()> messages_wait)
    : messages_wait_(std::move(messages_wait)),
      epoll_(CheckedDescriptor(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
      wake_(CheckedDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
    if (!Watch(epoll_.Get(), wake_.Get())) {
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
    }
}

EventWaiter::~EventWaiter() = default;

bool EventWaiter::AddSource(int fd, Handler handler, Readiness readiness) {
    const std::uint32_t events = readiness == Readiness::kUrgent ? EPOLLPRI : EPOLLIN;
    if (!Watch(epoll_.Get(), fd, events)) return false;
    handlers_[fd] = std::move(handler);
    return true;
}

void EventWaiter::RemoveSource(int fd) {
    if (handlers_.erase(fd) > 0) ::epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, fd, nullptr);
}

int EventWaiter::WaitAndHandleEvent(int timeout_ms, int max_events) {
    std::array<epoll_event, kMostEvents> events{};
    const int most = std::clamp(max_events, 0, kMostEvents - 1);
    // A sender counts its message before it wakes the waiter, so none is missed between check and
    // wait.
    if (messages_wait_ && messages_wait_()) timeout_ms = 0;
    // One more than requested, since the wake descriptor may be ready too.
    const int ready = WaitForReady(epoll_.Get(), events.data(), most + 1, timeout_ms);
    bool woken = false;
    int handled = 0;
    for (int i = 0; i < ready; ++i) {
        const int fd = events[static_cast<std::size_t>(i)].data.fd;
        if (fd == wake_.Get()) {
            woken = true;
        } else if (handled < most) {
            const auto found = handlers_.find(fd);  // an earlier handler may have removed it
            if (found == handlers_.end()) continue;
            const Handler handler = found->second;
            handler();
            ++handled;
        }
    }
    if (handled > 0) return handled;  // the wake stays for the next wait
    std::uint64_t wakes = 0;
    if (woken && ::read(wake_.Get(), &wakes, sizeof(wakes)) < 0) wakes = 0;
    return -1;
}

void EventWaiter::Wake() {
    const std::uint64_t one = 1;
    // Fails only when the counter is full; the wait then ends anyway.
    if (::write(wake_.Get(), &one, sizeof(one)) < 0) return;
}

}  // namespace Framework
