// Owns descriptors until they are closed, and the thread that closes them. Must not use them
// otherwise. Close is thread-safe and takes ownership.
#include "restore/object/BackgroundCloser.h"

#include <unistd.h>

#include <csignal>
#include <system_error>
#include <utility>

namespace SDK {

namespace {

constexpr std::size_t kMaxWaiting = 128;

}  // namespace

BackgroundCloser& BackgroundCloser::GetInstance() {
    static BackgroundCloser instance;
    return instance;
}

// Other threads of the process handle signals.
BackgroundCloser::BackgroundCloser() : process_(::getpid()) {
    sigset_t all;
    sigset_t former;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &former);
    try {
        thread_ = std::thread(&BackgroundCloser::Run, this);
    } catch (const std::system_error&) {
        is_ending_ = true;  // without a thread everything is closed at once
    }
    ::pthread_sigmask(SIG_SETMASK, &former, nullptr);
}

BackgroundCloser::~BackgroundCloser() {
    if (!thread_.joinable()) return;
    if (process_ != ::getpid()) {  // forked: the thread stayed with the parent
        thread_.detach();
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        is_ending_ = true;
    }
    changed_.notify_one();
    thread_.join();
}

void BackgroundCloser::Close(FileDescriptor descriptor) {
    if (process_ != ::getpid()) return;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (is_ending_ || waiting_.size() >= kMaxWaiting) return;
        waiting_.push_back(std::move(descriptor));
    }
    changed_.notify_one();
}

void BackgroundCloser::Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return is_ending_ || !waiting_.empty(); });
        if (waiting_.empty()) return;
        FileDescriptor next = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        next.Reset();
        lock.lock();
    }
}

}  // namespace SDK
