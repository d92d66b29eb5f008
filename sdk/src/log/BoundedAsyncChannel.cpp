// Owns the queue of log records, the thread that writes them, and the count of lost ones. The
// target owns files and their rotation. log() is thread-safe; Work() runs on the own thread.
#include "log/BoundedAsyncChannel.h"

#include <exception>
#include <string>
#include <utility>

namespace SDK {

BoundedAsyncChannel::~BoundedAsyncChannel() {
    Stop();
}

void BoundedAsyncChannel::Start(Poco::AutoPtr<Poco::Channel> target) {
    Stop();
    const std::lock_guard<std::mutex> control(control_mutex_);
    target_ = std::move(target);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        running_ = true;
    }
    worker_ = std::thread(&BoundedAsyncChannel::Work, this);
}

void BoundedAsyncChannel::Stop() {
    const std::lock_guard<std::mutex> control(control_mutex_);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        running_ = false;
    }
    wake_.notify_one();
    if (worker_.joinable()) worker_.join();
    if (!target_.isNull()) target_->close();
    target_ = nullptr;
}

void BoundedAsyncChannel::log(const Poco::Message& record) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!running_) return;
        if (queue_.size() >= capacity_) {
            ++dropped_;
            return;
        }
        queue_.push_back(record);
    }
    wake_.notify_one();
}

unsigned long BoundedAsyncChannel::Dropped() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return dropped_;
}

void BoundedAsyncChannel::Work() {
    for (;;) {
        std::deque<Poco::Message> records;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [this] { return !queue_.empty() || !running_; });
            if (queue_.empty()) return;
            records.swap(queue_);
        }
        Write(records);
        ReportDropped();
    }
}

void BoundedAsyncChannel::Write(const std::deque<Poco::Message>& records) {
    for (const Poco::Message& record : records) {
        try {
            target_->log(record);
        } catch (const std::exception&) {
            // A closed target opens its file again with the next record: the disk may have space
            // again.
            target_->close();
            const std::lock_guard<std::mutex> lock(mutex_);
            ++dropped_;
        }
    }
}

void BoundedAsyncChannel::ReportDropped() {
    unsigned long dropped = 0;
    unsigned long unreported = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        dropped = dropped_;
        unreported = dropped_ - reported_;
    }
    if (unreported == 0) return;
    try {
        target_->log(Poco::Message("", "dropped " + std::to_string(unreported) + " log records",
                                   Poco::Message::PRIO_WARNING));
        const std::lock_guard<std::mutex> lock(mutex_);
        reported_ = dropped;
    } catch (const std::exception&) {
        target_->close();  // reported with a later record
    }
}

}  // namespace SDK
