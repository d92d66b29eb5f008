#pragma once

#include <chrono>
#include <optional>

namespace Engine {

class FileNotifyMessage;

/// Is notified when a posted message is freed. Shared by its messages. Thread-safe.
class DeliveryObserver {
  public:
    DeliveryObserver() = default;
    DeliveryObserver(const DeliveryObserver&) = delete;
    DeliveryObserver& operator=(const DeliveryObserver&) = delete;
    virtual ~DeliveryObserver() = default;

    /// Called from the destructor of `message`, on the thread that frees it; must not block.
    /// `handling`: how long the receiver took; none when the message was never delivered.
    virtual void MessageGone(const FileNotifyMessage& message,
                             std::optional<std::chrono::nanoseconds> handling) noexcept = 0;
};

}  // namespace Engine
