#include "watchdog/Probe.h"

#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>

#include <utility>

namespace Sentry {

Probe::Probe(std::string file) : file_(std::move(file)), thread_([this] { Work(); }) {}

Probe::~Probe() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        is_stopping_ = true;
    }
    changed_.notify_one();
    thread_.join();
}

void Probe::Begin() {
    begun_ = Clock::now();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        is_running_ = true;
    }
    changed_.notify_one();
}

void Probe::Work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return is_stopping_ || is_running_; });
        if (is_stopping_) return;
        lock.unlock();
        SDK::FileDescriptor opened(
            ::open(file_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        opened.Reset();
        lock.lock();
        is_running_ = false;
    }
}

}  // namespace Sentry
