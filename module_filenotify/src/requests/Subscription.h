#pragma once

#include <mutex>
#include <string>
#include <utility>

namespace Engine::FileNotify {

/// A receiver's right to get the messages of one watch. WatchRequestQueue creates and revokes it;
/// watches and pending changes share it. A watch that is removed and added again gets a new
/// subscription, so changes pending for the old one are never delivered. Thread-safe.
class Subscription {
  public:
    Subscription(std::string receiver, std::string id)
        : receiver_(std::move(receiver)), id_(std::move(id)) {}

    const std::string& Receiver() const { return receiver_; }
    const std::string& Id() const { return id_; }

    /// After the return no message is being posted for it, and none will be. Blocks while Post
    /// runs.
    void Revoke() {
        const std::lock_guard lock(mutex_);
        valid_ = false;
    }

    bool IsValid() const {
        const std::lock_guard lock(mutex_);
        return valid_;
    }

    enum class Posted { kYes, kRefused, kRevoked };

    /// Runs `post`, which returns whether it succeeded, unless the subscription is revoked.
    /// `post` must not block, because Revoke waits for it.
    template <typename PostOne>
    Posted Post(PostOne&& post) const {
        const std::lock_guard lock(mutex_);
        if (!valid_) return Posted::kRevoked;
        return post() ? Posted::kYes : Posted::kRefused;
    }

  private:
    const std::string receiver_;
    const std::string id_;
    mutable std::mutex mutex_;
    bool valid_ = true;
};

}  // namespace Engine::FileNotify
