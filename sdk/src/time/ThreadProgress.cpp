// Owns what is known of one thread's job; each thread has a pointer to its own. Must not judge how
// long is too long (the watchdog does). The watched thread writes, one other thread reads.
#include "sdk/time/ThreadProgress.h"

#include <pthread.h>

namespace SDK {

namespace {

thread_local ThreadProgress* current_progress = nullptr;

}  // namespace

ThreadProgress::Job::Job(ThreadProgress& progress)
    : progress_(progress), previous_(current_progress) {
    clockid_t clock{};
    if (::pthread_getcpuclockid(::pthread_self(), &clock) == 0) progress_.thread_clock_ = clock;
    ++progress_.steps_;
    progress_.in_job_ = true;
    current_progress = &progress_;
}

ThreadProgress::Job::~Job() {
    current_progress = previous_;
    ++progress_.steps_;
    progress_.in_job_ = false;
}

ThreadProgress::Pause::Pause() : progress_(current_progress) {
    if (progress_ == nullptr) return;
    ++progress_->steps_;
    ++progress_->pauses_;
}

ThreadProgress::Pause::~Pause() {
    if (progress_ == nullptr) return;
    ++progress_->steps_;
    --progress_->pauses_;
}

std::int64_t ThreadProgress::UsedTime() const {
    constexpr std::int64_t kNanoseconds = 1'000'000'000;
    timespec used{};
    if (::clock_gettime(thread_clock_, &used) != 0) return 0;
    return used.tv_sec * kNanoseconds + used.tv_nsec;
}

std::chrono::milliseconds ThreadProgress::SinceProgress() {
    const bool is_working = in_job_ && pauses_ == 0;
    const std::uint64_t steps = steps_;
    const std::int64_t used = is_working ? UsedTime() : 0;
    const auto now = Clock::now();
    if (!is_working || steps != seen_steps_ || used != seen_time_) unchanged_since_ = now;
    seen_steps_ = steps;
    seen_time_ = used;
    return std::chrono::duration_cast<std::chrono::milliseconds>(now - unchanged_since_);
}

}  // namespace SDK
