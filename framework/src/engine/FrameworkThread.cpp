// Owns the framework thread, its job queue and the interrupter of its commands. Must not know
// what a job does (Engine does). Run is called on any thread; jobs run on the framework thread.
#include "engine/FrameworkThread.h"

#include <Poco/Exception.h>
#include <pthread.h>

#include <utility>

namespace Framework {

FrameworkThread::~FrameworkThread() {
    Stop();
}

void FrameworkThread::Start() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (running_) return;
    running_ = true;
    commands_.Reset();
    thread_ = std::thread([this] { Loop(); });
    id_ = thread_.get_id();
}

void FrameworkThread::Stop() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        running_ = false;
        changed_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
}

void FrameworkThread::InterruptCommands() {
    commands_.Interrupt();
}

void FrameworkThread::Run(const std::function<void()>& job) {
    std::future<void> done;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (id_ != std::this_thread::get_id()) {
            if (!running_) throw Poco::IllegalStateException("the framework is not running");
            done = jobs_.emplace_back(job).get_future();
            changed_.notify_all();
        }
    }
    if (!done.valid()) {
        job();
        return;
    }
    done.get();
}

void FrameworkThread::Loop() {
    ::pthread_setname_np(::pthread_self(), "framework");
    const SDK::CommandInterrupter::Scope commands(commands_);
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return !jobs_.empty() || !running_; });
        if (jobs_.empty()) return;
        std::packaged_task<void()> job = std::move(jobs_.front());
        jobs_.pop_front();
        lock.unlock();
        {
            const SDK::ThreadProgress::Job watched(progress_);
            job();
        }
        lock.lock();
    }
}

}  // namespace Framework
