// Owns the thread that reads a fanotify group. Must not parse nor judge what it reads.
#include "who/kernel/EventReader.h"

#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <utility>

namespace Sentry {

namespace {

constexpr std::size_t kBufferSize = 64 * 1024;
constexpr std::chrono::microseconds kPause{200};
constexpr int kPauses = 250;
constexpr int kHighest = -20;

SDK::FileDescriptor NewEvent() {
    return SDK::FileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

/// An event that counts to its limit stays readable, which is all that is wanted.
void Raise(int event) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(event, &one, sizeof(one));
}

/// The thread runs for microseconds, and has to run at once. Without the right to do so it is
/// later.
void TakePriority() {
    sched_param priority{};
    priority.sched_priority = 1;
    if (::sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &priority) == 0) return;
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), kHighest);
}

bool IsReadable(int descriptor) {
    pollfd ready{descriptor, POLLIN, 0};
    return ::poll(&ready, 1, 0) > 0;
}

}  // namespace

Nanoseconds Now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<Nanoseconds>(now.tv_sec) * kSecond + now.tv_nsec;
}

EventReader::EventReader(int group)
    : group_(group),
      filled_(NewEvent()),
      stop_(NewEvent()),
      buffer_(kBufferSize),
      begun_(Now()),
      ended_(begun_),
      thread_([this] { Work(); }) {
    while (thread_id_ == 0) std::this_thread::yield();
}

EventReader::~EventReader() {
    Raise(stop_.Get());
    thread_.join();
}

void EventReader::Work() {
    ::prctl(PR_SET_NAME, "who-reader");
    TakePriority();
    thread_id_ = ::gettid();
    for (;;) {
        pollfd ready[] = {{group_, POLLIN, 0}, {stop_.Get(), POLLIN, 0}};
        ::poll(ready, std::size(ready), -1);
        if (ready[1].revents != 0) return;
        if (ready[0].revents != 0) ReadOnce();
    }
}

void EventReader::ReadOnce() {
    const std::lock_guard<std::mutex> lock(mutex_);
    Moment moment{begun_, 0, ended_, Now(), 0};
    const ssize_t size = ::read(group_, buffer_.data(), buffer_.size());
    moment.latest = Now();
    if (size <= 0) return;
    begun_ = moment.quiet_until;
    ended_ = moment.latest;
    if (bytes_ + static_cast<std::size_t>(size) > kMostBytes) {
        ++dropped_;
        return;
    }
    if (chunks_.empty()) Raise(filled_.Get());
    chunks_.push_back({{buffer_.begin(), buffer_.begin() + size}, moment});
    bytes_ += static_cast<std::size_t>(size);
}

std::deque<EventReader::Chunk> EventReader::TakeAll() {
    for (int pause = 0; pause < kPauses && IsReadable(group_); ++pause) {
        std::this_thread::sleep_for(kPause);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t ignored = ::read(filled_.Get(), &count, sizeof(count));
    bytes_ = 0;
    return std::exchange(chunks_, {});
}

}  // namespace Sentry
