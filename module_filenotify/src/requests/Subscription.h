#pragma once

#include <mutex>
#include <string>
#include <utility>

namespace Engine::FileNotify {

/// What a receiver holds by registering: its id, the watch id, and the right to get messages. A
/// watch that is taken off and put on again has a new subscription, so what waits for the old one
/// is never delivered. Any thread.
class Subscription {
  public:
    Subscription(std::string receiver, std::string id)
        : receiver_(std::move(receiver)), id_(std::move(id)) {}

    const std::string& Receiver() const { return receiver_; }
    const std::string& Id() const { return id_; }

    /// On return no message is being posted for it, and none will be.
    void Revoke() {
        const std::lock_guard lock(mutex_);
        valid_ = false;
    }

    bool IsValid() const {
        const std::lock_guard lock(mutex_);
        return valid_;
    }

    enum class Posted { kYes, kRefused, kRevoked };

    /// Runs `post`, which gives a bool, unless revoked. It must not block: Revoke waits for it.
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
