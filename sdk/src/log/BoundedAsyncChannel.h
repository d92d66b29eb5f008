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

/// Takes log records from any thread without blocking and writes them to another channel from a
/// thread of its own. When the queue is full a record is dropped and counted, and once there is
/// room again one record tells how many. Silent while it has no target.
class BoundedAsyncChannel : public Poco::Channel {
  public:
    explicit BoundedAsyncChannel(std::size_t capacity) : capacity_(capacity) {}
    BoundedAsyncChannel(const BoundedAsyncChannel&) = delete;
    BoundedAsyncChannel& operator=(const BoundedAsyncChannel&) = delete;

    /// Writes to `target` from now on; what is queued still goes to the former one.
    void Start(Poco::AutoPtr<Poco::Channel> target);

    /// Writes out what is queued, closes the target and ends the thread. May be called twice.
    void Stop();

    void log(const Poco::Message& record) override;
    void close() override { Stop(); }

    /// Records that found the queue full or could not be written, since the start.
    unsigned long Dropped() const;

  protected:
    ~BoundedAsyncChannel() override;

  private:
    void Work();
    void Write(const std::deque<Poco::Message>& records);
    void TellDropped();

    const std::size_t capacity_;
    std::mutex control_mutex_;  // one Start or Stop at a time
    std::thread worker_;
    Poco::AutoPtr<Poco::Channel> target_;  // the worker's own while that runs

    mutable std::mutex mutex_;  // guards what follows
    std::condition_variable wake_;
    std::deque<Poco::Message> queue_;
    bool running_ = false;
    unsigned long dropped_ = 0;
    unsigned long told_ = 0;  // how many of dropped_ a record has told of
};

}  // namespace SDK
