#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <thread>

namespace SDK {

/// Accepts log records without blocking and writes them to another channel on its own thread. A
/// full queue drops the record and counts it; once there is space, one record reports the number.
/// Discards everything while it has no target. Thread-safe.
class BoundedAsyncChannel : public Poco::Channel {
  public:
    explicit BoundedAsyncChannel(std::size_t capacity) : capacity_(capacity) {}
    BoundedAsyncChannel(const BoundedAsyncChannel&) = delete;
    BoundedAsyncChannel& operator=(const BoundedAsyncChannel&) = delete;

    /// Writes to `target` from now on; queued records still go to the previous target.
    void Start(Poco::AutoPtr<Poco::Channel> target);

    /// Writes the queued records, closes the target and ends the thread. Safe to call twice.
    void Stop();

    void log(const Poco::Message& record) override;
    void close() override { Stop(); }

    /// Records lost since the start: the queue was full, or the target failed.
    unsigned long Dropped() const;

  protected:
    ~BoundedAsyncChannel() override;

  private:
    void Work();
    void Write(const std::deque<Poco::Message>& records);
    void ReportDropped();

    const std::size_t capacity_;
    std::mutex control_mutex_;  // one Start or Stop at a time
    std::thread worker_;
    Poco::AutoPtr<Poco::Channel> target_;  // used by the worker only while that runs

    mutable std::mutex mutex_;  // guards what follows
    std::condition_variable wake_;
    std::deque<Poco::Message> queue_;
    bool running_ = false;
    unsigned long dropped_ = 0;
    unsigned long reported_ = 0;  // the part of dropped_ that was reported
};

}  // namespace SDK
